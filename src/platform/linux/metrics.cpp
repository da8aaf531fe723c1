// The machine's load, sampled from /proc and /sys.
#include "platform/platform.h"

#include "platform/linux/load_sampler.h"

namespace korvane {

void platform::sampleSystemMetrics(SystemMetrics& out)
{
    static linux_platform::LoadSampler sampler;
    out = sampler.sample(std::chrono::steady_clock::now().time_since_epoch());
}

void platform::sampleMemoryOnly(SystemMetrics& out)
{
    linux_platform::LoadSampler().sampleMemory(out);
}

} // namespace korvane
