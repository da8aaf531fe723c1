// Adjusts this process's token.
#include "platform/windows/holders/debug_privilege.h"

namespace korvane::windows_platform {

DebugPrivilege::DebugPrivilege()
{
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token) ==
        FALSE)
        return;
    m_token.reset(token);
    TOKEN_PRIVILEGES wanted{1, {{{}, SE_PRIVILEGE_ENABLED}}};
    if (LookupPrivilegeValueW(nullptr, L"SeDebugPrivilege", &wanted.Privileges[0].Luid) == FALSE)
        return;
    DWORD size = 0;
    const BOOL isDone =
        AdjustTokenPrivileges(token, FALSE, &wanted, sizeof m_before, &m_before, &size);
    m_isEnabled = isDone != FALSE && GetLastError() == ERROR_SUCCESS; // else ERROR_NOT_ALL_ASSIGNED
}

DebugPrivilege::~DebugPrivilege()
{
    if (m_isEnabled && m_before.PrivilegeCount > 0) // 0 where it was enabled before
        AdjustTokenPrivileges(m_token.get(), FALSE, &m_before, 0, nullptr, nullptr);
}

} // namespace korvane::windows_platform
