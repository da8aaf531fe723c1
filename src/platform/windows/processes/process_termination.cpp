// Ending a process: exactly the one that the user was shown, however long the answer took.
#include "platform/processes.h"

#include "platform/portable/termination_results.h"
#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/text.h"

namespace korvane {

namespace {

using namespace windows_platform;

/// How long an ended process may take to be gone, in milliseconds.
constexpr DWORD exitLimit = 3000;

OpResult failure(quint32 pid, DWORD error)
{
    if (error == ERROR_INVALID_PARAMETER) // There is no such PID.
        return platform::exitedBefore(pid);
    if (error == ERROR_ACCESS_DENIED)
        return platform::outOfReach(pid);
    return platform::notEnded(pid, errorText(error));
}

bool exitsWithin(DWORD limit, const UniqueHandle& process)
{
    return WaitForSingleObject(process.get(), limit) == WAIT_OBJECT_0;
}

} // namespace

OpResult platform::endProcess(unsigned int pid, const ShownProcesses& shown)
{
    constexpr quint32 systemPid = 4;
    constexpr DWORD query = PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE;
    constexpr UINT exitCode = 1;
    if (const auto refusal = refusalToEnd(pid, shown, systemPid))
        return *refusal;
    if (pid == GetCurrentProcessId())
        return ownProcess(pid);
    // From here on the process cannot be mistaken for another, whatever becomes of its PID.
    UniqueHandle process = openProcess(pid, query | PROCESS_TERMINATE);
    const DWORD refusal = process == nullptr ? GetLastError() : ERROR_SUCCESS;
    if (process == nullptr) // It may still tell who it is.
        process = openProcess(pid, query);
    if (process == nullptr)
        return failure(pid, refusal);
    const auto created = creationTime(process.get());
    if (!created)
        return failure(pid, GetLastError());
    if (shown.startTimeOf(pid) != created)
        return anotherProcess(pid);
    if (exitsWithin(0, process))
        return exitedBefore(pid);
    if (isCritical(process.get()))
        return criticalProcess(pid);
    if (refusal != ERROR_SUCCESS)
        return failure(pid, refusal);
    if (TerminateProcess(process.get(), exitCode) == FALSE) {
        const DWORD error = GetLastError(); // "Access denied" also where it is ending just now.
        return exitsWithin(exitLimit, process) ? endedProcess(pid) : failure(pid, error);
    }
    return exitsWithin(exitLimit, process) ? endedProcess(pid) : stillRunning(pid);
}

} // namespace korvane
