// The service that finds and releases the processes holding files, and that ends processes.
#pragma once

#include "base/op_result.h"
#include "base/singleton.h"
#include "base/system_records.h"
#include "platform/file_holders.h"

#include <QObject>

#include <memory>

namespace korvane {

/// Releases files held by other processes. The probing and the operations on handles and
/// processes are the platform's. A probe and the close that follows it belong together: the
/// service acts on the last probe. Main thread only.
class FileUnlockService : public QObject, public Singleton<FileUnlockService>
{
    Q_OBJECT

public:
    enum class OpLevel {
        Info = 0,    ///< Progress and success.
        Warning = 1, ///< A step failed but the batch went on.
        Error = 2,   ///< The operation failed.
    };
    Q_ENUM(OpLevel)

    /// Signal form of probeLockers(): emits queryFinished() or queryFailed().
    void query(const QList<QString>& paths);

    /// Platform operation: finds the processes that hold any of `paths`, and remembers the
    /// handles found.
    LockerProbe probeLockers(const QList<QString>& paths);

    /// Signal form of closeHandlesSync(): reports through operationLog().
    void closeHandles();

    /// Platform operation: closes the handles that the last probe found.
    OpResult closeHandlesSync();

    /// Ends the processes one by one; each failure and a summary go to operationLog().
    void killProcesses(const QList<unsigned int>& pids);

    /// Platform operation: ends one process.
    OpResult killProcess(unsigned int pid);

    /// Platform operation: has the paths deleted at the next restart; reports through
    /// operationLog().
    void scheduleDeleteOnReboot(const QList<QString>& paths);

Q_SIGNALS:
    void queryFinished(const QList<ProcessInfo>& processes);
    void queryFailed(const QString& reason);
    void operationLog(const QString& message, OpLevel level);

private:
    friend class Singleton<FileUnlockService>;
    FileUnlockService();

    void report(const OpResult& result);

    /// What a probe found, for the close that follows.
    struct Impl
    {
        QList<platform::HeldFile> held;
    };
    std::unique_ptr<Impl> m_impl;
};

} // namespace korvane
