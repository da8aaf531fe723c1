// The machine's load, sampled from /proc and /sys.
#include "platform/metrics.h"

#include "platform/linux/metrics/load_sampler.h"

namespace korvane {

void platform::sampleSystemMetrics(LoadCounters& before, SystemMetrics& out)
{
    linux_platform::LoadSampler().sample(before,
                                         std::chrono::steady_clock::now().time_since_epoch(), out);
}

void platform::sampleMemoryOnly(SystemMetrics& out)
{
    linux_platform::LoadSampler().sampleMemory(out);
}

} // namespace korvane
