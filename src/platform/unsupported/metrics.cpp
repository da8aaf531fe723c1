// System metrics without a back end: all zeros.
#include "core/system_records.h"
#include "platform/platform.h"

namespace korvane {

void platform::sampleSystemMetrics(SystemMetrics& out)
{
    out = {};
}

void platform::sampleMemoryOnly(SystemMetrics& out)
{
    out = {};
}

} // namespace korvane
