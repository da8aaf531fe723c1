// Reads the kernel's counters of the machine's load.
#pragma once

#include "base/load_counters.h"

#include <QByteArray>

#include <chrono>
#include <optional>

namespace korvane::linux_platform {

/// Reads what the kernel counts of the load. Never fails: what cannot be read or is damaged counts as 0.
///
/// Sources, below the two roots: /proc/stat, /proc/meminfo, /proc/sys/vm/overcommit_memory,
/// /proc/net/dev, /sys/block, /sys/class/net.
class LoadSampler
{
public:
    /// The roots are those of the system, or directories of their shape.
    explicit LoadSampler(QByteArray procRoot = "/proc", QByteArray sysRoot = "/sys");

    /// Fills all of `out`: the load as sampleLoad() does.
    void sample(LoadCounters& before, std::chrono::nanoseconds now, SystemMetrics& out) const;

    /// Fills only the memory and commit fields of `out`.
    ///
    /// Commit: where the kernel keeps to a limit (overcommit mode 2), what it has promised and
    /// that limit. Elsewhere promises pass the limit on healthy machines; there it is what is in
    /// use of memory and swap.
    void sampleMemory(SystemMetrics& out) const;

private:
    std::optional<LoadCounters::CpuTimes> readCpu() const;
    LoadCounters::Devices readDisks() const;
    LoadCounters::Devices readInterfaces() const;
    LoadCounters::Devices readAllInterfaces() const;

    QByteArray m_procRoot;
    QByteArray m_sysRoot;
};

} // namespace korvane::linux_platform
