// Measuring the machine's load over a short time.
#pragma once

#include "base/system_records.h"

#include <chrono>

namespace korvane {

/// The load of the machine over `time`, for which it blocks. Never fails: what the platform does not
/// know is 0. Main thread only.
SystemMetrics measureLoad(std::chrono::milliseconds time);

} // namespace korvane
