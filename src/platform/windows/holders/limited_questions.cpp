// Threads that are given up, each with all that it needs to end by itself later.
#include "platform/windows/holders/limited_questions.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

namespace korvane::windows_platform {

namespace {

using Clock = std::chrono::steady_clock;

/// The handles that threads are stuck with. Owned by those threads too, as they may outlive the program's
/// own objects.
struct Stuck
{
    std::mutex lock;
    std::set<HandleKey> keys;

    static const std::shared_ptr<Stuck>& instance()
    {
        static const auto stuck = std::make_shared<Stuck>();
        return stuck;
    }

    bool contains(const HandleKey& key)
    {
        const std::lock_guard guard(lock);
        return keys.contains(key);
    }

    /// False where there are as many already as may be.
    bool add(const HandleKey& key)
    {
        const std::lock_guard guard(lock);
        return keys.insert(key).second && keys.size() < maxStuck;
    }

    void remove(const HandleKey& key)
    {
        const std::lock_guard guard(lock);
        keys.erase(key);
    }

    bool isFull()
    {
        const std::lock_guard guard(lock);
        return keys.size() >= maxStuck;
    }
};

/// What the asking thread shares with those that it has given up.
struct Round
{
    std::vector<HandleKey> keys;
    Question ask;
    std::shared_ptr<Stuck> stuck = Stuck::instance();

    std::mutex lock; ///< Guards what follows.
    std::condition_variable changed;
    std::vector<std::optional<OpenFile>> files;
    std::size_t next = 0;                   ///< The handle that is being asked about.
    std::optional<Clock::time_point> since; ///< When that was begun; none until the thread runs.
    int worker = 0;                         ///< The thread that is not given up.
    bool isDone = false;
};

void work(const std::shared_ptr<Round>& round, int worker)
{
    std::unique_lock guard(round->lock);
    for (; round->worker == worker && round->next < round->keys.size(); ++round->next) {
        const std::size_t index = round->next;
        const HandleKey key = round->keys[index];
        round->since = Clock::now();
        if (round->stuck->contains(key))
            continue;
        guard.unlock();
        auto file = round->ask(index);
        guard.lock();
        if (index < round->files.size()) // else it is too late
            round->files[index] = std::move(file);
        if (round->worker != worker) {
            round->stuck->remove(key);
            return;
        }
    }
    round->isDone = true;
    round->changed.notify_one();
}

/// False where the system has no more threads.
bool startWorker(const std::shared_ptr<Round>& round)
{
    round->since.reset();
    try {
        std::thread(work, round, round->worker).detach();
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

} // namespace

Answers askWithLimit(std::vector<HandleKey> keys, Question ask, std::chrono::milliseconds limit)
{
    const auto round = std::make_shared<Round>();
    round->files.resize(keys.size());
    round->keys = std::move(keys);
    round->ask = std::move(ask);

    std::unique_lock guard(round->lock);
    bool goesOn = !round->stuck->isFull() && startWorker(round);
    while (goesOn && !round->isDone) {
        round->changed.wait_until(guard, round->since.value_or(Clock::now()) + limit);
        if (round->isDone || !round->since || Clock::now() < *round->since + limit)
            continue;
        goesOn = round->stuck->add(round->keys[round->next]);
        ++round->worker;
        ++round->next;
        goesOn = goesOn && startWorker(round);
    }
    ++round->worker;
    return {std::exchange(round->files, {}), round->keys.size() - round->next};
}

} // namespace korvane::windows_platform
