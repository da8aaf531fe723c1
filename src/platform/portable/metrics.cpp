// The load since the previous call, for callers that keep nothing themselves.
#include "platform/metrics.h"

namespace korvane {

void platform::sampleSystemMetrics(SystemMetrics& out)
{
    static LoadCounters before;
    sampleSystemMetrics(before, out);
}

} // namespace korvane
