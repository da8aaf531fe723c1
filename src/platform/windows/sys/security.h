// Users, as the system's tokens name them.
#pragma once

#include "platform/windows/sys/handle.h"

#include <QString>

#include <optional>

namespace korvane::windows_platform {

/// The user of a process, as its token says.
struct TokenUser
{
    QString sid;             ///< In the form "S-1-5-21-…".
    bool isElevated = false; ///< Whether it has an administrator's rights now.
};

/// The user of `process`, opened for PROCESS_QUERY_LIMITED_INFORMATION; none where that cannot be told.
std::optional<TokenUser> userOf(HANDLE process);

/// This process's own user; read once. Any thread.
const std::optional<TokenUser>& ownUser();

/// A SID in its textual form; empty for one that is damaged.
QString sidText(PSID sid);

} // namespace korvane::windows_platform
