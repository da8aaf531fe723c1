// The parts of file unlocking that no platform changes: the signal forms and the batch.
#include "core/file_unlock.h"

#include "core/shown_processes.h"
#include "platform/processes.h"

namespace korvane {

using namespace Qt::StringLiterals;

FileUnlockService::FileUnlockService() : m_impl(std::make_unique<Impl>())
{
    registerRecordMetaTypes();
}

void FileUnlockService::report(const OpResult& result)
{
    Q_EMIT operationLog(result.message, result.ok ? OpLevel::Info : OpLevel::Error);
}

void FileUnlockService::query(const QList<QString>& paths)
{
    const LockerProbe probe = probeLockers(paths);
    if (probe.ok)
        Q_EMIT queryFinished(probe.processes);
    else
        Q_EMIT queryFailed(probe.error);
}

void FileUnlockService::closeHandles()
{
    report(closeHandlesSync());
}

void FileUnlockService::killProcesses(const QList<unsigned int>& pids)
{
    if (pids.isEmpty())
        return;
    int succeeded = 0;
    int failed = 0;
    for (const unsigned int pid : pids) {
        const OpResult result = killProcess(pid);
        if (result.ok) {
            ++succeeded;
            continue;
        }
        ++failed;
        Q_EMIT operationLog(result.message, OpLevel::Warning);
    }
    const QString summary = u"批量杀进程完成:成功 %1 / 失败 %2"_s.arg(QString::number(succeeded),
                                                                      QString::number(failed));
    Q_EMIT operationLog(summary, failed > 0 ? OpLevel::Warning : OpLevel::Info);
}

LockerProbe FileUnlockService::probeLockers(const QList<QString>& paths)
{
    m_impl->held.clear();
    return platform::findFileHolders(paths, m_impl->held);
}

OpResult FileUnlockService::closeHandlesSync()
{
    return platform::closeHeldFiles(m_impl->held);
}

OpResult FileUnlockService::killProcess(unsigned int pid)
{
    return platform::endProcess(pid, shownProcesses());
}

void FileUnlockService::scheduleDeleteOnReboot(const QList<QString>& paths)
{
    report(platform::scheduleDeleteOnReboot(paths));
}

} // namespace korvane
