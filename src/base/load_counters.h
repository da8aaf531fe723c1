// What a machine counts of its load, and the load between two readings of that.
#pragma once

#include "base/system_records.h"

#include <QByteArray>
#include <QHash>

#include <array>
#include <chrono>
#include <functional>
#include <optional>

namespace korvane {

/// What has been counted up to one moment.
struct LoadCounters
{
    /// Processor time in any unit: user, nice, system, idle, waiting for disks, interrupts, soft
    /// interrupts, taken by the host. What a platform does not tell apart stays 0.
    using CpuTimes = std::array<quint64, 8>;

    /// Of a disk or a network interface.
    struct Device
    {
        quint64 in = 0;     ///< Bytes read or received.
        quint64 out = 0;    ///< Bytes written or sent.
        quint64 busyMs = 0; ///< Only disks have it.
    };
    using Devices = QHash<QByteArray, Device>; ///< By what tells a device from any later one.

    std::chrono::nanoseconds takenAt{}; ///< By a monotonic clock; 0 before the first reading.
    std::optional<CpuTimes> cpu;
    Devices disks;
    Devices interfaces;
};

/// Over less, a share is chance: processor time comes in hundredths of a second.
inline constexpr std::chrono::milliseconds shortestLoadInterval{10};

/// Fills the shares and rates of `out` with the load since `before`, which becomes what `read` returns
/// for `now`, the time on a monotonic clock. They are 0 where there is no reading before, and in a
/// sample that follows another within shortestLoadInterval, which then stays as it is. A device counts if
/// it was there both times, with counters that only grew. All figures are finite and none is negative,
/// whatever the counters hold.
void sampleLoad(LoadCounters& before, std::chrono::nanoseconds now,
                const std::function<LoadCounters(std::chrono::nanoseconds now)>& read,
                SystemMetrics& out);

/// How far `value` is above `base`; 0 when it is below, as where a counter ran backwards.
quint64 excess(quint64 value, quint64 base);

/// `part` of `whole`, 0..100.
double percentOf(double part, double whole);

} // namespace korvane
