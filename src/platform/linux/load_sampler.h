// Measures the machine's load between successive samples of the kernel's counters.
#pragma once

#include "core/system_records.h"

#include <QByteArray>
#include <QHash>

#include <array>
#include <chrono>
#include <optional>

namespace korvane::linux_platform {

/// What the kernel has counted up to one moment.
struct LoadCounters
{
    /// In the order of /proc/stat: user, nice, system, idle, iowait, irq, softirq, steal. What
    /// guests used is part of user and nice.
    using CpuTicks = std::array<quint64, 8>;

    /// Of a disk or a network interface.
    struct Device
    {
        quint64 in = 0;     ///< Sectors read, or bytes received.
        quint64 out = 0;    ///< Sectors written, or bytes sent.
        quint64 busyMs = 0; ///< Only disks have it.
    };

    std::chrono::nanoseconds takenAt{};
    std::optional<CpuTicks> cpu;
    QHash<QByteArray, Device> disks; ///< By path and sequence number.
    QHash<QByteArray, Device> interfaces;
};

/// Takes samples of the load; remembers the counters of the one before. Never fails: what cannot
/// be read or is damaged counts as 0. All figures are finite and none is negative, whatever the
/// counters hold.
///
/// Sources, below the two roots: /proc/stat, /proc/meminfo, /proc/sys/vm/overcommit_memory,
/// /proc/net/dev, /sys/block, /sys/class/net.
class LoadSampler
{
public:
    /// The roots are those of the system, or directories of their shape.
    explicit LoadSampler(QByteArray procRoot = "/proc", QByteArray sysRoot = "/sys");

    /// The load since the sample before; `now` is the time on a monotonic clock. Shares and rates
    /// are 0 in the first sample, and in one that follows another within 10 ms, which then stays
    /// the one that the next is measured against.
    SystemMetrics sample(std::chrono::nanoseconds now);

    /// Fills only the memory and commit fields of `out`.
    ///
    /// Commit: where the kernel keeps to a limit (overcommit mode 2), what it has promised and
    /// that limit. Elsewhere promises pass the limit on healthy machines; there it is what is in
    /// use of memory and swap.
    void sampleMemory(SystemMetrics& out) const;

private:
    std::optional<LoadCounters::CpuTicks> readCpu() const;
    QHash<QByteArray, LoadCounters::Device> readDisks() const;
    QHash<QByteArray, LoadCounters::Device> readInterfaces() const;
    QHash<QByteArray, LoadCounters::Device> readAllInterfaces() const;

    QByteArray m_procRoot;
    QByteArray m_sysRoot;
    std::optional<LoadCounters> m_before;
};

} // namespace korvane::linux_platform
