// The watching thread, and what starts and ends it.
#include "base/watchdog.h"

#include <system_error>
#include <utility>

namespace korvane {

Watchdog::Watchdog(std::function<bool()> isAbandoned, std::function<void()> giveUp, Limits limits)
    : m_isAbandoned(std::move(isAbandoned)), m_giveUp(std::move(giveUp)), m_limits(limits)
{
    s_instance = this;
}

Watchdog::~Watchdog()
{
    s_instance = nullptr;
    {
        const std::scoped_lock locker(m_lock);
        m_isEnding = true;
    }
    m_changed.notify_one();
    if (m_thread.joinable())
        m_thread.join();
}

Watchdog::Work::Work()
{
    if (s_instance != nullptr)
        s_instance->setWorking(true);
}

Watchdog::Work::~Work()
{
    if (s_instance != nullptr)
        s_instance->setWorking(false);
}

void Watchdog::setWorking(bool isWorking)
{
    step();
    {
        const std::scoped_lock locker(m_lock);
        m_isWorking = isWorking;
    }
    if (!isWorking) // the thread finds out by itself, for no wake-up
        return;
    m_changed.notify_one();
    if (m_thread.joinable())
        return;
    try {
        m_thread = std::thread([this] { watch(); });
    } catch (const std::system_error&) { // no more threads here: work goes on unwatched
    }
}

void Watchdog::watch()
{
    std::unique_lock locker(m_lock);
    std::uint64_t stepsBefore = s_steps;
    int slicesWithoutStep = 0;
    while (!m_isEnding) {
        if (!m_isWorking)
            m_changed.wait(locker, [this] { return m_isEnding || m_isWorking; });
        m_changed.wait_for(locker, m_limits.slice, [this] { return m_isEnding; });
        const std::uint64_t steps = s_steps;
        slicesWithoutStep = steps == stepsBefore ? slicesWithoutStep + 1 : 0;
        stepsBefore = steps;
        if (m_isWorking && slicesWithoutStep >= m_limits.slices && m_isAbandoned())
            m_giveUp();
    }
}

} // namespace korvane
