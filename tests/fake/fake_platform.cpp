// Every platform operation, answered from the script.
#include "fake/fake_platform.h"

#include "core/net_monitor_service.h"
#include "core/process_service.h"
#include "core/service_manager_service.h"
#include "core/startup_service.h"
#include "core/uninstall_service.h"

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

QList<ProcessSnapshot> ProcessService::enumPlatform(QString* error) const
{
    QList<ProcessSnapshot> processes = script.processes.answer(error);
    m_cpuTable.beginEnumeration(1);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    for (const ProcessSnapshot& process : processes) {
        if (script.processesLeaveCpuSamples)
            m_cpuTable.record({.pid = process.pid, .takenAt = now});
    }
    m_cpuTable.endEnumeration();
    return processes;
}

QList<StartupItem> StartupService::enumPlatform(QString* error) const
{
    return script.startupItems.answer(error);
}

QList<StartupItem> StartupService::enumScheduledTasksPlatform(QString* error) const
{
    return script.scheduledTasks.answer(error);
}

QList<StartupItem> StartupService::enumShellExtensionsPlatform(QString* error) const
{
    return script.shellExtensions.answer(error);
}

OpResult StartupService::setEnabledPlatform(StartupSource source, const QString& name, bool enabled)
{
    return script.write(
        {u"StartupService::setEnabled"_s, number(static_cast<int>(source)), name, number(enabled)});
}

QList<NetConnection> NetMonitorService::enumPlatform(QString* error) const
{
    return script.connections.answer(error);
}

QList<UninstallEntry> UninstallService::enumPlatform(QString* error) const
{
    return script.uninstallEntries.answer(error);
}

OpResult UninstallService::executeUninstallPlatform(const UninstallEntry& entry)
{
    return script.write({u"executeUninstall"_s, entry.uninstallString});
}

QList<ServiceItem> ServiceManagerService::enumPlatform(QString* error) const
{
    return script.services.answer(error);
}

QList<QString> ServiceManagerService::enumDependentsPlatform(const QString& name) const
{
    return script.dependents.value(name);
}

QList<QString> ServiceManagerService::queryDependenciesPlatform(const QString& name) const
{
    return script.dependencies.value(name);
}

OpResult ServiceManagerService::startServicePlatform(const QString& name)
{
    return script.write({u"startService"_s, name});
}

OpResult ServiceManagerService::stopServicePlatform(const QString& name)
{
    return script.write({u"stopService"_s, name});
}

OpResult ServiceManagerService::setEnabledPlatform(const QString& name, bool enabled)
{
    return script.write({u"setEnabled"_s, name, number(enabled)});
}

OpResult ServiceManagerService::setStartTypePlatform(const QString& name, ServiceStartType type)
{
    return script.write({u"setStartType"_s, name, number(static_cast<int>(type))});
}

SignatureStatus SignatureService::verifyPlatform(const QString& path) const
{
    script.verified.append(path);
    return script.signatures.value(path, SignatureStatus::Unknown);
}

bool SignatureService::canVerifyPlatform() const
{
    return script.canVerify;
}

QString SignatureService::signerNamePlatform(const QString& path) const
{
    script.signersAsked.append(path);
    return script.signers.value(path);
}

struct FileUnlockService::Impl
{
    QStringList probed;
};

FileUnlockService::ImplPointer FileUnlockService::makeImplPlatform()
{
    return {new Impl, [](Impl* impl) { delete impl; }};
}

LockerProbe FileUnlockService::probeLockers(const QList<QString>& paths)
{
    m_impl->probed = paths;
    return script.lockersOf.value(paths.value(0), script.lockers);
}

OpResult FileUnlockService::closeHandlesSync()
{
    return script.write(QStringList{u"closeHandles"_s} + m_impl->probed);
}

OpResult FileUnlockService::killProcess(unsigned int pid)
{
    return script.write({u"killProcess"_s, number(pid)});
}

namespace platform {

void sampleSystemMetrics(SystemMetrics& out)
{
    out = script.metrics.value(script.metricsSamples++);
}

bool mayAnswerForUser(qintptr /*socketDescriptor*/)
{
    return script.peerMayAnswer();
}

QString processCommandLine(unsigned int pid)
{
    script.commandLinesAsked.append(pid);
    return script.commandLines.value(pid);
}

OpResult moveToRecycleBin(const QList<QString>& paths)
{
    return script.write(QStringList{u"moveToRecycleBin"_s} + paths);
}

} // namespace platform

} // namespace korvane
