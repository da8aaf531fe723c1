// Who listens on the consent channel, found out without asking anything.
#pragma once

#include <QString>

#include <optional>

namespace korvane::consent {

/// The full path of the channel's socket, whether anybody listens or not. It depends on TMPDIR.
QString channelPath();

/// The program at the channel's other end.
struct Listener
{
    QString name; ///< "/bin/program (PID 5)", fit to be shown; where it cannot be reached, why.
    bool isTrusted = false; ///< Whether this user's server takes its answers.
};

/// Who listens; none where nobody does. Connects, for which it waits up to a second. Main thread only.
std::optional<Listener> findListener();

} // namespace korvane::consent
