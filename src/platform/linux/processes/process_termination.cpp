// Ending a process: exactly the one that the user was shown, however long the answer took.
#include "platform/processes.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/portable/termination_results.h"

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

OpResult failure(quint32 pid, int errorNumber)
{
    if (errorNumber == ESRCH)
        return platform::exitedBefore(pid);
    if (errorNumber == EPERM || errorNumber == EACCES)
        return platform::notPermitted(pid);
    return platform::notEnded(pid, qt_error_string(errorNumber));
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

OpResult platform::endProcess(unsigned int pid, const ShownProcesses& shown)
{
    constexpr quint32 initPid = 1;
    if (const auto refusal = refusalToEnd(pid, shown, initPid))
        return *refusal;
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
    if (shown.startTimeOf(pid) != stat->startTicks)
        return anotherProcess(pid);
    if (stat->isKernelThread)
        return kernelThread(pid);

    if (exitsWithin(0ms, process))
        return exitedBefore(pid);
    if (::syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0) != 0)
        return failure(pid, errno);
    return exitsWithin(exitLimit, process) ? endedProcess(pid) : stillRunning(pid);
}

} // namespace korvane
