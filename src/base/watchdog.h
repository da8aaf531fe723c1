// Ends a process whose work is stuck once nobody waits for its answer any more.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace korvane {

/// Watches work that may get stuck for good, as on a file system whose server is dead, where the
/// kernel lets no thread go on. Tells it from work that is only slow by the steps it makes.
///
/// There is at most one in a process; without one, nothing is watched. It starts a thread with the
/// first work, which sleeps while there is none.
class Watchdog
{
public:
    /// How long work may make no step: counted in slices, as they stand still when the process or
    /// the machine does.
    struct Limits
    {
        std::chrono::milliseconds slice{1000};
        int slices = 60;
    };

    /// Both functions are called on the watching thread. `isAbandoned` tells whether nobody waits for
    /// the work any more; it must not block. `giveUp` ends the process: what is stuck cannot be ended.
    Watchdog(std::function<bool()> isAbandoned, std::function<void()> giveUp, Limits limits);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    Watchdog(Watchdog&&) = delete;
    Watchdog& operator=(Watchdog&&) = delete;

    /// Work that is watched for as long as this object lives. On the thread of the watchdog's owner,
    /// one at a time.
    class Work
    {
    public:
        Work();
        ~Work();
        Work(const Work&) = delete;
        Work& operator=(const Work&) = delete;
        Work(Work&&) = delete;
        Work& operator=(Work&&) = delete;
    };

    /// Tells that the work, if there is any, goes on. Callable from any thread, and cheap: two threads
    /// that count at once may count one step, which is as good.
    static void step() noexcept
    {
        s_steps.store(s_steps.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    /// How many steps have been made, all in all.
    static std::uint64_t steps() noexcept { return s_steps; }

private:
    void setWorking(bool isWorking);
    void watch();

    static inline std::atomic<std::uint64_t> s_steps = 0;
    static inline Watchdog* s_instance = nullptr; ///< Used by the owner's thread alone.

    std::function<bool()> m_isAbandoned;
    std::function<void()> m_giveUp;
    Limits m_limits;
    std::mutex m_lock; ///< Guards the two flags. Held while giving up, so that no work ends then.
    std::condition_variable m_changed;
    bool m_isWorking = false;
    bool m_isEnding = false;
    std::thread m_thread;
};

} // namespace korvane
