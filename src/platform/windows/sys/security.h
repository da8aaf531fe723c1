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
    quint32 integrity = 0;   ///< SECURITY_MANDATORY_..._RID: low for what is kept in a sandbox.
};

/// The user of `process`, opened for PROCESS_QUERY_LIMITED_INFORMATION; none where that cannot be told.
std::optional<TokenUser> userOf(HANDLE process);

/// This process's own user; read once. Any thread.
const std::optional<TokenUser>& ownUser();

/// A SID in its textual form; empty for one that is damaged.
QString sidText(PSID sid);

/// The level that a mandatory label's SID stands for; that of nobody for one that is damaged.
quint32 integrityOf(PSID label);

} // namespace korvane::windows_platform
