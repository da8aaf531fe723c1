// Which processes the user was shown, so that an order to end one cannot reach another.
#pragma once

#include <QHash>

#include <optional>

namespace korvane {

/// The identity of the process that the latest listings showed under each PID: its start time, in
/// whatever unit the platform has. A PID may belong to another process by now. Not thread-safe.
class ShownProcesses
{
public:
    /// Remembers the process with this start time under `pid`.
    void insert(quint32 pid, quint64 startTime) { m_startTimes.insert(pid, startTime); }

    /// The start time of the process that was shown under `pid`; none where none was.
    std::optional<quint64> startTimeOf(quint32 pid) const
    {
        const auto found = m_startTimes.constFind(pid);
        return found == m_startTimes.cend() ? std::nullopt : std::optional(*found);
    }

private:
    QHash<quint32, quint64> m_startTimes;
};

} // namespace korvane
