// Turns cumulative processor times of processes into the share used since an earlier sample.
#pragma once

#include <QHash>

#include <chrono>

namespace korvane {

/// The previous samples of every process, keyed by PID. One enumeration is a run of record()
/// calls between beginEnumeration() and endEnumeration(). Not thread-safe.
///
/// Invariant: a process's `baseline` is never later than its `latest`, and two successive
/// `latest` samples are at least minimumInterval apart. A figure is measured against `latest`
/// where that is old enough, else against `baseline`: an enumeration shortly after another
/// neither measures over a too short time nor spoils the next one.
class ProcessCpuTable
{
public:
    using Nanoseconds = std::chrono::nanoseconds;

    /// A sample younger than this is not measured against.
    static constexpr std::chrono::milliseconds minimumInterval{200};

    /// What a back end read of one process.
    struct Reading
    {
        quint32 pid = 0;
        quint64 startTime = 0;  ///< In any unit; tells a recycled PID.
        Nanoseconds cpuTime{0}; ///< User and system time since the process started.
        Nanoseconds takenAt{0}; ///< Time of the reading by std::chrono::steady_clock.
    };

    /// Opens an enumeration on a machine of `processorCount` processors.
    void beginEnumeration(int processorCount);

    /// How long to wait before an enumeration at `now` so that it can measure: the rest of
    /// minimumInterval after the very first one, else zero.
    Nanoseconds settlingTime(Nanoseconds now) const;

    /// Remembers the reading and returns the share of the whole machine, 0..100, used since the
    /// sample it is measured against; negative for a process seen for the first time, or so
    /// lately that a tick or two of its time would read as 0 or 100 %.
    double record(const Reading& reading);

    /// Forgets every process that was not recorded since beginEnumeration().
    void endEnumeration();

    /// Whether no enumeration has filled the table yet.
    bool isEmpty() const { return m_processes.isEmpty(); }

private:
    struct Sample
    {
        Nanoseconds cpuTime{0};
        Nanoseconds takenAt{0};
    };
    struct TrackedProcess
    {
        quint64 startTime = 0;
        Sample baseline;
        Sample latest;
        quint32 enumeration = 0;
    };

    QHash<quint32, TrackedProcess> m_processes;
    /// Last reading of the first enumeration: a faster one may follow, and reach every process
    /// sooner after its start.
    Nanoseconds m_filledAt{0};
    bool m_isFilling = false; ///< Whether the first enumeration is under way.
    quint32 m_enumeration = 0;
    int m_processorCount = 1;
};

} // namespace korvane
