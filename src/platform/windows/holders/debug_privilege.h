// The right to look into other users' processes, for the time of a call.
#pragma once

#include "platform/windows/sys/handle.h"

namespace korvane::windows_platform {

/// Has SeDebugPrivilege enabled while it lives, where this process's token has it: administrators' do when
/// elevated. Puts it back as it was. For the whole process: main thread only.
class DebugPrivilege
{
public:
    DebugPrivilege();
    ~DebugPrivilege();
    DebugPrivilege(const DebugPrivilege&) = delete;
    DebugPrivilege& operator=(const DebugPrivilege&) = delete;
    DebugPrivilege(DebugPrivilege&&) = delete;
    DebugPrivilege& operator=(DebugPrivilege&&) = delete;

    bool isEnabled() const { return m_isEnabled; }

private:
    UniqueHandle m_token;
    TOKEN_PRIVILEGES m_before{};
    bool m_isEnabled = false;
};

} // namespace korvane::windows_platform
