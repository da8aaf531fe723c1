// Owners of what the system hands out, so that nothing is left open.
#pragma once

#include <memory>

#include <windows.h>

namespace korvane::windows_platform {

/// Calls `close` on a resource as std::unique_ptr's deleter.
template <auto close> struct CloseBy
{
    template <typename Resource> void operator()(Resource* resource) const
    {
        static_cast<void>(close(resource));
    }
};

/// A kernel object, closed by CloseHandle.
using UniqueHandle = std::unique_ptr<void, CloseBy<CloseHandle>>;

/// Memory of LocalAlloc, as some calls return it.
template <typename Content> using UniqueLocal = std::unique_ptr<Content, CloseBy<LocalFree>>;

/// Takes `handle` over; null for INVALID_HANDLE_VALUE, which some calls return for a failure.
inline UniqueHandle owned(HANDLE handle)
{
    return UniqueHandle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

} // namespace korvane::windows_platform
