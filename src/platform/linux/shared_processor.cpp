// Keeps two threads on one processor for a hand-over, by their affinity.
#include "platform/shared_processor.h"

#include <atomic>

#include <sched.h>
#include <unistd.h>

namespace korvane::platform {

struct SharedProcessor::Placement
{
    pid_t worker = ::gettid();
    cpu_set_t everywhere = {}; ///< Where both may run; written while the worker waits.
    std::atomic<bool> isGathered = false;
};

SharedProcessor::SharedProcessor() : m_placement(std::make_unique<Placement>()) {}

SharedProcessor::~SharedProcessor() = default;

void SharedProcessor::gather()
{
    // Read each time, as somebody may have changed it from outside.
    cpu_set_t& everywhere = m_placement->everywhere;
    const int processor = ::sched_getcpu();
    m_placement->isGathered = false;
    if (processor < 0 || ::sched_getaffinity(0, sizeof(everywhere), &everywhere) != 0 ||
        CPU_COUNT(&everywhere) < 2)
        return;
    cpu_set_t here = {};
    CPU_SET(static_cast<unsigned>(processor), &here);
    m_placement->isGathered = true;
    (void)::sched_setaffinity(m_placement->worker, sizeof(here), &here);
    (void)::sched_setaffinity(0, sizeof(here), &here);
}

void SharedProcessor::release()
{
    if (m_placement->isGathered)
        (void)::sched_setaffinity(0, sizeof(cpu_set_t), &m_placement->everywhere);
}

} // namespace korvane::platform
