// Ending a process: exactly the one that the user was shown, however long the answer took.
#include "core/file_unlock_service.h"

#include "platform/linux/proc_fs.h"
#include "platform/linux/seen_processes.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace korvane {

namespace {

using namespace linux_platform;
using namespace std::chrono;

/// How long a killed process may take to be gone.
constexpr milliseconds exitLimit(3000);

OpResult hasExited(quint32 pid)
{
    return {true, QStringLiteral("进程 (PID %1) 已退出, 无需结束").arg(pid)};
}

OpResult failure(quint32 pid, int errorNumber)
{
    if (errorNumber == ESRCH)
        return hasExited(pid);
    if (errorNumber == EPERM || errorNumber == EACCES)
        return {false, QStringLiteral("没有权限结束进程 (PID %1), 它属于其他用户").arg(pid)};
    return {false, QStringLiteral("无法结束进程 (PID %1): %2")
                       .arg(QString::number(pid), qt_error_string(errorNumber))};
}

/// Why the process that `stat` was read from is not to be ended; none when it is.
std::optional<OpResult> objection(quint32 pid, const ProcStat& stat, quint64 seenStart)
{
    if (stat.startTicks != seenStart) {
        return OpResult{false, QStringLiteral("进程 (PID %1) 已退出, 该 PID 现属于另一个进程, "
                                              "未结束任何进程")
                                   .arg(pid)};
    }
    if (stat.isKernelThread)
        return OpResult{false, QStringLiteral("拒绝结束内核线程 (PID %1)").arg(pid)};
    return std::nullopt;
}

/// Whether the process exits within the limit; a zombie has.
bool exitsWithin(milliseconds limit, const UniqueFd& process)
{
    const auto deadline = steady_clock::now() + limit;
    for (;;) {
        const auto left = ceil<milliseconds>(deadline - steady_clock::now());
        pollfd exit{process.get(), POLLIN, 0};
        const int ready = ::poll(&exit, 1, static_cast<int>(std::max(left, 0ms).count()));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

} // namespace

OpResult FileUnlockService::killProcess(unsigned int pid)
{
    if (pid == 1)
        return {false, QStringLiteral("拒绝结束系统的初始进程 (PID 1)")};
    const auto seen = seenProcesses().constFind(pid);
    if (seen == seenProcesses().cend()) {
        return {false, QStringLiteral("拒绝结束 PID %1: 最近的进程或连接列表中没有它").arg(pid)};
    }
    // From here on the process cannot be mistaken for another, whatever becomes of its PID.
    const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0)));
    if (!process.isValid())
        return failure(pid, errno);
    ProcFs procFs;
    if (!procFs.isOpen())
        return failure(pid, isOwnFailure(errno) ? errno : EIO);
    const auto content = procFs.readFile(pid, "stat");
    if (!content)
        return failure(pid, errno == ENOENT ? ESRCH : errno);
    const auto stat = parseProcStat(*content);
    if (!stat)
        return failure(pid, EPROTO);
    if (const auto refusal = objection(pid, *stat, *seen))
        return *refusal;

    if (exitsWithin(0ms, process))
        return hasExited(pid);
    if (::syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0) != 0)
        return failure(pid, errno);
    if (!exitsWithin(exitLimit, process)) {
        return {false, QStringLiteral("已强制结束进程 (PID %1), 但它在 3 秒内仍未退出").arg(pid)};
    }
    return {true, QStringLiteral("进程 (PID %1) 已结束").arg(pid)};
}

} // namespace korvane
