// Who listens on the consent channel, found out without asking anything.
#pragma once

#include <QString>

#include <optional>

namespace korvane::consent {

/// Where the channel is (platform::localAddress), whether anybody listens or not.
QString channelPath();

/// The program at the channel's other end.
struct Listener
{
    QString name; ///< "/bin/program (PID 5)", fit to be shown; where it cannot be reached, why.
    bool isTrusted = false; ///< Whether this user's server takes its answers.
    quint32 pid = 0;        ///< 0 where it is not known.
    QString executable{};   ///< As it is, not fit to be shown; empty where it is not known.
};

/// Who listens; none where nobody does. Connects, for which it waits up to a second. Main thread only.
std::optional<Listener> findListener();

} // namespace korvane::consent
