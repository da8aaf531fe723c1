// Every platform operation, answered from the script.
#include "fake/fake_platform.h"

#include "platform/file_holders.h"
#include "platform/file_sync.h"
#include "platform/metrics.h"
#include "platform/network.h"
#include "platform/notification.h"
#include "platform/paths.h"
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

using Error = QString*;
using Name = const QString&;
using Names = const QStringList&;
using Shown = const ShownProcesses&;

fake::Platform& script = fake::platform();

QString number(qint64 value)
{
    return QString::number(value);
}

OpResult write(const char* operation, Names arguments)
{
    return script.write(QStringList{QString::fromLatin1(operation)} + arguments);
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

std::unique_ptr<QObject> showNotification(Name title, Name text)
{
    auto notification = std::make_unique<QObject>();
    notification->setObjectName(title + u'|' + text);
    script.notification = notification.get();
    return notification;
}

SignatureStatus verifySignature(const QString& path)
{
    script.verified.append(path);
    return script.signatures.value(path, SignatureStatus::Unknown);
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
    return write("closeHandles", held.size() == 1 ? script.probed : QStringList());
}

std::optional<Peer> peerOf(qintptr /*socketDescriptor*/)
{
    const PeerUser user = script.peerMayAnswer() ? PeerUser::Own : PeerUser::Other;
    const QString executable = script.ancestors.value(0).exePath;
    return Peer{.user = user, .userId = {}, .pid = 4711, .executable = executable};
}

OpResult setStartsWithSession(bool starts)
{
    OpResult result = write("setStartsWithSession", {number(starts)});
    script.startsWithSession = result.ok ? starts : script.startsWithSession;
    return result;
}

// A table of operations, with what answers them.
// clang-format off
QList<StartupItem> listRunItems(Error error) { return script.startupItems.answer(error); }
QList<StartupItem> listScheduledTasks(Error error) { return script.scheduledTasks.answer(error); }
QList<StartupItem> listShellExtensions(Error error) { return script.shellExtensions.answer(error); }
QList<UninstallEntry> listSoftware(Error error) { return script.uninstallEntries.answer(error); }
QList<ServiceItem> listServices(QStringList&, Error error) { return script.services.answer(error); }
QList<NetConnection> listConnections(ShownProcesses&, Error e) { return script.connections.answer(e); }

QList<ProcessSnapshot> processAndAncestors(quint32) { return script.ancestors; }
QString processCommandLine(unsigned int pid) { return script.commandLines.value(pid); }
QList<QString> servicesDependingOn(Name name) { return script.dependents.value(name); }
QList<QString> servicesNeededBy(Name name) { return script.dependencies.value(name); }
bool canVerifySignatures() { return script.canVerify; }
bool isSamePath(Name path, Name other) { return path == other; }
bool startsWithSession() { return script.startsWithSession; }
bool isLocalPath(Name path) { return script.elsewhere.isEmpty() || !path.startsWith(script.elsewhere); }
bool syncFile(int) { return script.canSync(); }

OpResult startService(Name name, Names) { return write("startService", {name}); }
OpResult stopService(Name name, Names) { return write("stopService", {name}); }
OpResult scheduleDeleteOnReboot(Names paths) { return write("deleteOnReboot", paths); }
OpResult moveToRecycleBin(Names paths) { return write("moveToRecycleBin", paths); }
OpResult endProcess(unsigned int pid, Shown) { return write("killProcess", {number(pid)}); }
OpResult setServiceEnabled(Name name, bool on, Names) { return write("setEnabled", {name, number(on)}); }
// clang-format on

OpResult uninstallSoftware(const UninstallEntry& entry)
{
    return write("executeUninstall", {entry.uninstallString});
}

OpResult setServiceStartType(Name name, ServiceStartType type, Names /*shown*/)
{
    return write("setStartType", {name, number(int(type))});
}

OpResult setRunItemEnabled(StartupSource source, Name name, bool enabled)
{
    return write("StartupService::setEnabled", {number(int(source)), name, number(enabled)});
}

void sampleSystemMetrics(LoadCounters& /*before*/, SystemMetrics& out)
{
    out = script.metrics.value(script.metricsSamples++);
}

} // namespace platform

} // namespace korvane
