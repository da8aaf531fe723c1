// Every platform operation, answered from the script.
#include "fake/fake_platform.h"

#include "core/network.h"
#include "core/processes.h"
#include "core/services.h"
#include "core/startup.h"
#include "core/software.h"

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

QList<ProcessSnapshot> ProcessService::enumPlatform(QString* error) const
{
    fake::Platform& script = fake::platform();
    QList<ProcessSnapshot> processes = script.processes.answer(error);
    m_cpuTable.beginEnumeration(1);
    if (script.processesLeaveCpuSamples) {
        for (const ProcessSnapshot& process : processes)
            m_cpuTable.record({.pid = process.pid});
    }
    m_cpuTable.endEnumeration();
    return processes;
}

QList<StartupItem> StartupService::enumPlatform(QString* error) const
{
    return fake::platform().startupItems.answer(error);
}

QList<StartupItem> StartupService::enumScheduledTasksPlatform(QString* error) const
{
    return fake::platform().scheduledTasks.answer(error);
}

QList<StartupItem> StartupService::enumShellExtensionsPlatform(QString* error) const
{
    return fake::platform().shellExtensions.answer(error);
}

OpResult StartupService::setEnabledPlatform(StartupSource source, const QString& name, bool enabled)
{
    return fake::platform().write({QStringLiteral("StartupService::setEnabled"),
                                   number(static_cast<int>(source)), name, number(enabled)});
}

QList<NetConnection> NetMonitorService::enumPlatform(QString* error) const
{
    return fake::platform().connections.answer(error);
}

QList<UninstallEntry> UninstallService::enumPlatform(QString* error) const
{
    return fake::platform().uninstallEntries.answer(error);
}

OpResult UninstallService::executeUninstallPlatform(const UninstallEntry& entry)
{
    return fake::platform().write({QStringLiteral("executeUninstall"), entry.uninstallString});
}

QList<ServiceItem> ServiceManagerService::enumPlatform(QString* error) const
{
    return fake::platform().services.answer(error);
}

QList<QString> ServiceManagerService::enumDependentsPlatform(const QString& name) const
{
    return fake::platform().dependents.value(name);
}

QList<QString> ServiceManagerService::queryDependenciesPlatform(const QString& name) const
{
    return fake::platform().dependencies.value(name);
}

OpResult ServiceManagerService::startServicePlatform(const QString& name)
{
    return fake::platform().write({QStringLiteral("startService"), name});
}

OpResult ServiceManagerService::stopServicePlatform(const QString& name)
{
    return fake::platform().write({QStringLiteral("stopService"), name});
}

OpResult ServiceManagerService::setEnabledPlatform(const QString& name, bool enabled)
{
    return fake::platform().write({QStringLiteral("setEnabled"), name, number(enabled)});
}

OpResult ServiceManagerService::setStartTypePlatform(const QString& name, ServiceStartType type)
{
    return fake::platform().write(
        {QStringLiteral("setStartType"), name, number(static_cast<int>(type))});
}

SignatureStatus SignatureService::verifyPlatform(const QString& path) const
{
    fake::platform().verified.append(path);
    return fake::platform().signatures.value(path, SignatureStatus::Unknown);
}

bool SignatureService::canVerifyPlatform() const
{
    return fake::platform().canVerify;
}

QString SignatureService::signerNamePlatform(const QString& path) const
{
    fake::platform().signersAsked.append(path);
    return fake::platform().signers.value(path);
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
    return fake::platform().lockersOf.value(paths.value(0), fake::platform().lockers);
}

OpResult FileUnlockService::closeHandlesSync()
{
    return fake::platform().write(QStringList{QStringLiteral("closeHandles")} + m_impl->probed);
}

OpResult FileUnlockService::killProcess(unsigned int pid)
{
    return fake::platform().write({QStringLiteral("killProcess"), number(pid)});
}

void FileUnlockService::scheduleDeleteOnReboot(const QList<QString>& paths)
{
    const OpResult result =
        fake::platform().write(QStringList{QStringLiteral("deleteOnReboot")} + paths);
    Q_EMIT operationLog(result.message, result.ok ? OpLevel::Info : OpLevel::Error);
}

namespace platform {

void sampleSystemMetrics(SystemMetrics& out)
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

bool mayAnswerForUser(qintptr /*socketDescriptor*/)
{
    return fake::platform().peerMayAnswer();
}

QString processCommandLine(unsigned int pid)
{
    fake::platform().commandLinesAsked.append(pid);
    return fake::platform().commandLines.value(pid);
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
