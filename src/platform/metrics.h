// The machine's load and memory.
#pragma once

#include "base/load_counters.h"
#include "base/system_records.h"

namespace korvane::platform {

/// Fills all fields of `out`. Shares and rates are relative to `before`, which is replaced by what was
/// read; they are 0 where that is empty, or so young that they would be chance. All zeros without a
/// back end. Never fails: what cannot be read or is damaged counts as 0. Main thread only.
/// Linux: /proc/stat, /proc/meminfo, /proc/net/dev, /sys/block and /sys/class/net.
/// Windows: GetSystemTimes, GetPerformanceInfo, IOCTL_DISK_PERFORMANCE of physical drives, GetIfTable2.
void sampleSystemMetrics(LoadCounters& before, SystemMetrics& out);

/// The same, relative to the previous call of this function: callers sample twice.
void sampleSystemMetrics(SystemMetrics& out);

/// Fills only the memory and commit fields of `out`, cheaply.
/// Linux: /proc/meminfo. Windows: GetPerformanceInfo.
void sampleMemoryOnly(SystemMetrics& out);

} // namespace korvane::platform
