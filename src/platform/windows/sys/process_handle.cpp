// The calls on a process's handle.
#include "platform/windows/sys/process_handle.h"

#include "platform/windows/sys/system_library.h"
#include "platform/windows/sys/text.h"

#include <string>

namespace korvane::windows_platform {

UniqueHandle openProcess(quint32 pid, DWORD access)
{
    UniqueHandle process(OpenProcess(access, FALSE, pid));
    // PIDs are multiples of four, and the system takes what is between for the one below.
    if (process != nullptr && GetProcessId(process.get()) != pid) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return process;
}

std::optional<quint64> creationTime(HANDLE process)
{
    FILETIME created{};
    FILETIME others{};
    if (GetProcessTimes(process, &created, &others, &others, &others) == FALSE)
        return std::nullopt;
    return (quint64{created.dwHighDateTime} << 32) | created.dwLowDateTime;
}

QString imagePath(HANDLE process)
{
    constexpr DWORD longestPath = 32 * 1024;
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        auto size = static_cast<DWORD>(path.size());
        if (QueryFullProcessImageNameW(process, 0, path.data(), &size) != FALSE)
            return fromWide({path.data(), size});
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || path.size() >= longestPath)
            return {};
        path.resize(longestPath);
    }
}

bool isCritical(HANDLE process)
{
    using IsProcessCritical = BOOL(WINAPI*)(HANDLE, BOOL*);
    static const auto call =
        systemFunction<IsProcessCritical>(L"kernel32.dll", "IsProcessCritical");
    BOOL critical = FALSE;
    return call != nullptr && call(process, &critical) != FALSE && critical != FALSE;
}

} // namespace korvane::windows_platform
