// Every platform operation, answered from the script.
#include "fake/fake_platform.h"

#include "platform/desktop.h"
#include "platform/file_sync.h"
#include "platform/metrics.h"
#include "platform/network.h"
#include "platform/peer.h"
#include "platform/processes.h"
#include "platform/recycle_bin.h"
#include "platform/services.h"
#include "platform/signatures.h"
#include "platform/software.h"
#include "platform/startup.h"

#include <algorithm>

namespace korvane {

namespace fake {

Platform& platform()
{
    static Platform script;
    return script;
}

void reset()
{
    platform() = {};
}

} // namespace fake

namespace {

QString number(qint64 value)
{
    return QString::number(value);
}

} // namespace

namespace platform {

QList<ProcessSnapshot> listProcesses(ProcessCpuTable& cpuTable, ShownProcesses& /*shown*/,
                                     QString* error)
{
    fake::Platform& script = fake::platform();
    QList<ProcessSnapshot> processes = script.processes.answer(error);
    cpuTable.beginEnumeration(1);
    if (script.processesLeaveCpuSamples) {
        for (const ProcessSnapshot& process : processes)
            cpuTable.record({.pid = process.pid});
    }
    cpuTable.endEnumeration();
    return processes;
}

QList<ProcessSnapshot> processAndAncestors(quint32 /*pid*/)
{
    return fake::platform().ancestors;
}

bool syncFile(int /*handle*/)
{
    return fake::platform().canSync();
}

QString processCommandLine(unsigned int pid)
{
    fake::platform().commandLinesAsked.append(pid);
    return fake::platform().commandLines.value(pid);
}

OpResult endProcess(unsigned int pid, const ShownProcesses& /*shown*/)
{
    return fake::platform().write({QStringLiteral("killProcess"), number(pid)});
}

QList<StartupItem> listRunItems(QString* error)
{
    return fake::platform().startupItems.answer(error);
}

QList<StartupItem> listScheduledTasks(QString* error)
{
    return fake::platform().scheduledTasks.answer(error);
}

QList<StartupItem> listShellExtensions(QString* error)
{
    return fake::platform().shellExtensions.answer(error);
}

OpResult setRunItemEnabled(StartupSource source, const QString& name, bool enabled)
{
    return fake::platform().write({QStringLiteral("StartupService::setEnabled"),
                                   number(static_cast<int>(source)), name, number(enabled)});
}

QList<NetConnection> listConnections(ShownProcesses& /*shown*/, QString* error)
{
    return fake::platform().connections.answer(error);
}

QList<UninstallEntry> listSoftware(QString* error)
{
    return fake::platform().uninstallEntries.answer(error);
}

OpResult uninstallSoftware(const UninstallEntry& entry)
{
    return fake::platform().write({QStringLiteral("executeUninstall"), entry.uninstallString});
}

QList<ServiceItem> listServices(QStringList& /*shown*/, QString* error)
{
    return fake::platform().services.answer(error);
}

QList<QString> servicesDependingOn(const QString& name)
{
    return fake::platform().dependents.value(name);
}

QList<QString> servicesNeededBy(const QString& name)
{
    return fake::platform().dependencies.value(name);
}

OpResult startService(const QString& name, const QStringList& /*shown*/)
{
    return fake::platform().write({QStringLiteral("startService"), name});
}

OpResult stopService(const QString& name, const QStringList& /*shown*/)
{
    return fake::platform().write({QStringLiteral("stopService"), name});
}

OpResult setServiceEnabled(const QString& name, bool enabled, const QStringList& /*shown*/)
{
    return fake::platform().write({QStringLiteral("setEnabled"), name, number(enabled)});
}

OpResult setServiceStartType(const QString& name, ServiceStartType type,
                             const QStringList& /*shown*/)
{
    return fake::platform().write(
        {QStringLiteral("setStartType"), name, number(static_cast<int>(type))});
}

SignatureStatus verifySignature(const QString& path)
{
    fake::platform().verified.append(path);
    return fake::platform().signatures.value(path, SignatureStatus::Unknown);
}

bool canVerifySignatures()
{
    return fake::platform().canVerify;
}

QString signerName(const QString& path)
{
    fake::platform().signersAsked.append(path);
    return fake::platform().signers.value(path);
}

LockerProbe findFileHolders(const QList<QString>& paths, QList<HeldFile>& held)
{
    held.append({.pid = 1, .startTime = 2, .handle = 3});
    fake::platform().probed = paths;
    return fake::platform().lockersOf.value(paths.value(0), fake::platform().lockers);
}

OpResult closeHeldFiles(const QList<HeldFile>& held)
{
    const QStringList probed = held.size() == 1 ? fake::platform().probed : QStringList();
    return fake::platform().write(QStringList{QStringLiteral("closeHandles")} + probed);
}

OpResult scheduleDeleteOnReboot(const QList<QString>& paths)
{
    return fake::platform().write(QStringList{QStringLiteral("deleteOnReboot")} + paths);
}

void sampleSystemMetrics(LoadCounters& /*before*/, SystemMetrics& out)
{
    fake::Platform& script = fake::platform();
    const int sample = script.metricsSamples++;
    const auto last = static_cast<int>(script.metrics.size()) - 1;
    out = last < 0 ? SystemMetrics() : script.metrics.at(std::min(sample, last));
}

void sampleMemoryOnly(SystemMetrics& out)
{
    sampleSystemMetrics(out);
}

std::optional<Peer> peerOf(qintptr /*socketDescriptor*/)
{
    const PeerUser user = fake::platform().peerMayAnswer() ? PeerUser::Own : PeerUser::Other;
    const QString executable = fake::platform().ancestors.value(0).exePath;
    return Peer{.user = user, .userId = {}, .pid = 4711, .executable = executable};
}

OpResult moveToRecycleBin(const QList<QString>& paths)
{
    return fake::platform().write(QStringList{QStringLiteral("moveToRecycleBin")} + paths);
}

bool setKeepAwake(bool on)
{
    return fake::platform().write({QStringLiteral("setKeepAwake"), number(on)}).ok;
}

bool emptyRecycleBin()
{
    return fake::platform().write({QStringLiteral("emptyRecycleBin")}).ok;
}

bool removeMarkOfTheWeb(const QString& path)
{
    return fake::platform().write({QStringLiteral("removeMarkOfTheWeb"), path}).ok;
}

int toggleForegroundWindowTopmost()
{
    return fake::platform().write({QStringLiteral("toggleTopmost")}).ok ? 1 : -1;
}

} // namespace platform

} // namespace korvane
