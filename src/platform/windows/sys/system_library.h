// Calls that a system may lack.
#pragma once

#include <windows.h>

namespace korvane::windows_platform {

/// The function `name` of a library of the system that is loaded already, such as kernel32.dll and
/// ntdll.dll; null where it is not there.
template <typename Function> Function systemFunction(const wchar_t* library, const char* name)
{
    const HMODULE module = GetModuleHandleW(library);
    if (module == nullptr)
        return nullptr;
    // By way of void (*)(), or the compiler warns of a cast between types of functions.
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

} // namespace korvane::windows_platform
