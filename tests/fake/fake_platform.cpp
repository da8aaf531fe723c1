// Every platform operation, answered from the script.
#include "fake/fake_platform.h"

#include "platform/desktop.h"
#include "platform/file_sync.h"
#include "platform/metrics.h"
#include "platform/network.h"
#include "platform/notification.h"
#include "platform/peer.h"
#include "platform/processes.h"
#include "platform/recycle_bin.h"
#include "platform/services.h"
#include "platform/session.h"
#include "platform/signatures.h"
#include "platform/software.h"
#include "platform/startup.h"

#include <chrono>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

fake::Platform& script = fake::platform();

QString number(qint64 value)
{
    return QString::number(value);
}

} // namespace

namespace platform {

QList<ProcessSnapshot> listProcesses(ProcessCpuTable& cpuTable, ShownProcesses& /*shown*/,
                                     QString* error)
{
    QList<ProcessSnapshot> processes = script.processes.answer(error);
    cpuTable.beginEnumeration(1);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    for (const ProcessSnapshot& process : processes) {
        if (script.processesLeaveCpuSamples)
            cpuTable.record({.pid = process.pid, .takenAt = now});
    }
    cpuTable.endEnumeration();
    return processes;
}

QList<ProcessSnapshot> processAndAncestors(quint32 /*pid*/)
{
    return script.ancestors;
}

std::unique_ptr<QObject> showNotification(const QString& title, const QString& text)
{
    auto notification = std::make_unique<QObject>();
    notification->setObjectName(title + u'|' + text);
    script.notification = notification.get();
    return notification;
}

bool syncFile(int /*handle*/)
{
    return script.canSync();
}

QString processCommandLine(unsigned int pid)
{
    script.commandLinesAsked.append(pid);
    return script.commandLines.value(pid);
}

OpResult endProcess(unsigned int pid, const ShownProcesses& /*shown*/)
{
    return script.write({u"killProcess"_s, number(pid)});
}

QList<StartupItem> listRunItems(QString* error)
{
    return script.startupItems.answer(error);
}

QList<StartupItem> listScheduledTasks(QString* error)
{
    return script.scheduledTasks.answer(error);
}

QList<StartupItem> listShellExtensions(QString* error)
{
    return script.shellExtensions.answer(error);
}

OpResult setRunItemEnabled(StartupSource source, const QString& name, bool enabled)
{
    return script.write(
        {u"StartupService::setEnabled"_s, number(static_cast<int>(source)), name, number(enabled)});
}

QList<NetConnection> listConnections(ShownProcesses& /*shown*/, QString* error)
{
    return script.connections.answer(error);
}

QList<UninstallEntry> listSoftware(QString* error)
{
    return script.uninstallEntries.answer(error);
}

OpResult uninstallSoftware(const UninstallEntry& entry)
{
    return script.write({u"executeUninstall"_s, entry.uninstallString});
}

QList<ServiceItem> listServices(QStringList& /*shown*/, QString* error)
{
    return script.services.answer(error);
}

QList<QString> servicesDependingOn(const QString& name)
{
    return script.dependents.value(name);
}

QList<QString> servicesNeededBy(const QString& name)
{
    return script.dependencies.value(name);
}

OpResult startService(const QString& name, const QStringList& /*shown*/)
{
    return script.write({u"startService"_s, name});
}

OpResult stopService(const QString& name, const QStringList& /*shown*/)
{
    return script.write({u"stopService"_s, name});
}

OpResult setServiceEnabled(const QString& name, bool enabled, const QStringList& /*shown*/)
{
    return script.write({u"setEnabled"_s, name, number(enabled)});
}

OpResult setServiceStartType(const QString& name, ServiceStartType type,
                             const QStringList& /*shown*/)
{
    return script.write({u"setStartType"_s, name, number(static_cast<int>(type))});
}

SignatureStatus verifySignature(const QString& path)
{
    script.verified.append(path);
    return script.signatures.value(path, SignatureStatus::Unknown);
}

bool canVerifySignatures()
{
    return script.canVerify;
}

QString signerName(const QString& path)
{
    script.signersAsked.append(path);
    return script.signers.value(path);
}

LockerProbe findFileHolders(const QList<QString>& paths, QList<HeldFile>& held)
{
    held.append({.pid = 1, .startTime = 2, .handle = 3});
    script.probed = paths;
    return script.lockersOf.value(paths.value(0), script.lockers);
}

OpResult closeHeldFiles(const QList<HeldFile>& held)
{
    const QStringList probed = held.size() == 1 ? script.probed : QStringList();
    return script.write(QStringList{u"closeHandles"_s} + probed);
}

OpResult scheduleDeleteOnReboot(const QList<QString>& paths)
{
    return script.write(QStringList{u"deleteOnReboot"_s} + paths);
}

void sampleSystemMetrics(LoadCounters& /*before*/, SystemMetrics& out)
{
    out = script.metrics.value(script.metricsSamples++);
}

std::optional<Peer> peerOf(qintptr /*socketDescriptor*/)
{
    const PeerUser user = script.peerMayAnswer() ? PeerUser::Own : PeerUser::Other;
    const QString executable = script.ancestors.value(0).exePath;
    return Peer{.user = user, .userId = {}, .pid = 4711, .executable = executable};
}

bool startsWithSession()
{
    return script.startsWithSession;
}

OpResult setStartsWithSession(bool starts)
{
    OpResult result = script.write({u"setStartsWithSession"_s, number(starts ? 1 : 0)});
    script.startsWithSession = result.ok ? starts : script.startsWithSession;
    return result;
}

OpResult moveToRecycleBin(const QList<QString>& paths)
{
    return script.write(QStringList{u"moveToRecycleBin"_s} + paths);
}

} // namespace platform

} // namespace korvane
