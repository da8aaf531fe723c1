// Starts a program's own uninstaller.
#include "platform/software.h"

#include "platform/windows/sys/com.h"
#include "platform/windows/sys/command_line.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/limited_call.h"
#include "platform/windows/sys/text.h"

#include <shellapi.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

/// Starts it with the rights of this process, by itself and unwatched. The error, or ERROR_SUCCESS.
DWORD start(const Command& command)
{
    QString line = u"\"%1\" %2"_s.arg(command.executable, command.arguments);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    // A console of its own: what it prints must not get among this process's output.
    const BOOL isStarted =
        CreateProcessW(wide(command.executable), reinterpret_cast<wchar_t*>(line.data()), nullptr,
                       nullptr, FALSE, CREATE_NEW_CONSOLE, nullptr, nullptr, &startup, &started);
    if (isStarted == FALSE)
        return GetLastError();
    const UniqueHandle process(started.hProcess);
    const UniqueHandle thread(started.hThread);
    return ERROR_SUCCESS;
}

/// Starts what demands more rights: the system asks the user.
DWORD startElevated(const Command& command)
{
    const ComApartment apartment;
    SHELLEXECUTEINFOW info{};
    info.cbSize = sizeof info;
    info.fMask = SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC;
    info.lpFile = wide(command.executable);
    info.lpParameters = wide(command.arguments);
    info.nShow = SW_SHOWNORMAL;
    return ShellExecuteExW(&info) != FALSE ? ERROR_SUCCESS : GetLastError();
}

} // namespace

} // namespace windows_platform

OpResult platform::uninstallSoftware(const UninstallEntry& entry)
{
    using namespace windows_platform;
    constexpr DWORD needsElevation = 740;      // ERROR_ELEVATION_REQUIRED, which some headers lack.
    constexpr std::chrono::seconds limit(130); // The system's own question stands for two minutes.
    const Command command = splitCommand(entry.uninstallString);
    // A name that is not one of the system's own programs is looked for nowhere else, and no other
    // machine is handed the user's credentials.
    if (!isLocalFile(command.executable))
        return {false, u"找不到卸载程序 %1"_s.arg(command.executable)};
    DWORD result = start(command);
    if (result == needsElevation) {
        const auto answer = callWithin<DWORD>(limit, [command] { return startElevated(command); });
        if (!answer)
            return {false, u"卸载程序在等待管理员许可, 未得到答复"_s};
        result = *answer;
    }
    if (result == ERROR_CANCELLED)
        return {false, u"用户没有允许启动卸载程序"_s};
    if (result != ERROR_SUCCESS)
        return {false, u"无法启动卸载程序 %1: %2"_s.arg(command.executable, errorText(result))};
    return {true, u"已启动「%1」的卸载程序"_s.arg(entry.displayName)};
}

} // namespace korvane
