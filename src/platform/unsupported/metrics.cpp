// System metrics without a back end: all zeros.
#include "platform/metrics.h"

namespace korvane {

void platform::sampleSystemMetrics(LoadCounters& /*before*/, SystemMetrics& out)
{
    out = {};
}

void platform::sampleMemoryOnly(SystemMetrics& out)
{
    out = {};
}

} // namespace korvane
