// Two samples of the platform's, with a pause between them.
#include "core/metrics.h"

#include "platform/metrics.h"

#include <thread>

namespace korvane {

SystemMetrics measureLoad(std::chrono::milliseconds time)
{
    SystemMetrics sample;
    platform::sampleSystemMetrics(sample);
    std::this_thread::sleep_for(time);
    platform::sampleSystemMetrics(sample);
    return sample;
}

} // namespace korvane
