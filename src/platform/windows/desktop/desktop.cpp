// Sleep, the recycle bin, downloads and windows.
#include "platform/desktop.h"

#include "platform/paths.h"
#include "platform/windows/sys/com.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/text.h"

#include <shellapi.h>

namespace korvane {

using namespace Qt::StringLiterals;
using namespace windows_platform;

bool platform::setKeepAwake(bool on)
{
    return SetThreadExecutionState(ES_CONTINUOUS | (on ? ES_SYSTEM_REQUIRED : 0U)) != 0;
}

bool platform::emptyRecycleBin()
{
    constexpr DWORD silently = SHERB_NOCONFIRMATION | SHERB_NOPROGRESSUI | SHERB_NOSOUND;
    const ComApartment apartment;
    SHQUERYRBINFO content{};
    content.cbSize = sizeof content;
    // To empty what is empty is an error to the system.
    if (SHQueryRecycleBinW(nullptr, &content) == S_OK && content.i64NumItems == 0)
        return true;
    return SUCCEEDED(SHEmptyRecycleBinW(nullptr, nullptr, silently));
}

bool platform::removeMarkOfTheWeb(const QString& path)
{
    const QString file = extendedPath(path);
    if (!isLocalPath(path) || GetFileAttributesW(wide(file)) == INVALID_FILE_ATTRIBUTES)
        return false;
    return DeleteFileW(wide(file + u":Zone.Identifier"_s)) != FALSE ||
           GetLastError() == ERROR_FILE_NOT_FOUND;
}

int platform::toggleForegroundWindowTopmost()
{
    const HWND window = GetForegroundWindow();
    if (window == nullptr || window == GetDesktopWindow() || window == GetShellWindow() ||
        IsHungAppWindow(window) != FALSE)
        return -1;
    const bool isTopmost = (GetWindowLongPtrW(window, GWL_EXSTYLE) & WS_EX_TOPMOST) != 0;
    constexpr UINT flags = SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE | SWP_ASYNCWINDOWPOS;
    if (SetWindowPos(window, isTopmost ? HWND_NOTOPMOST : HWND_TOPMOST, 0, 0, 0, 0, flags) == FALSE)
        return -1;
    return isTopmost ? 0 : 1;
}

} // namespace korvane
