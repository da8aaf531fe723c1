// Texts between the framework and the system, whose characters are UTF-16 on both sides.
#pragma once

#include <QString>

#include <string_view>

#include <windows.h>

namespace korvane::windows_platform {

/// The text as the system takes it; valid as long as `text` is, and unchanged.
inline const wchar_t* wide(const QString& text)
{
    return reinterpret_cast<const wchar_t*>(text.utf16());
}

/// A text from the system, of any length.
inline QString fromWide(std::wstring_view text)
{
    return QString::fromWCharArray(text.data(), static_cast<qsizetype>(text.size()));
}

/// A text in a buffer that may lack its end: up to the first NUL, or all of it.
inline QString fromBuffer(std::wstring_view buffer)
{
    return fromWide(buffer.substr(0, buffer.find(L'\0')));
}

/// The system's own sentence for an error of GetLastError(), an HRESULT or an NTSTATUS that was made one
/// (Chinese where the system has that language), with the number: "拒绝访问。(错误 5)".
QString errorText(DWORD code);

/// errorText() of the calling thread's last error.
inline QString lastErrorText()
{
    return errorText(GetLastError());
}

} // namespace korvane::windows_platform
