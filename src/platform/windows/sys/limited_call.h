// Calls of the system that may hang, given up after a time.
#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace korvane::windows_platform {

/// Threads of withinTime() that run, those that were given up among them.
inline std::atomic<int> limitedCalls;

/// What `work` returns, done on a thread of its own; none when that takes longer than `limit`, or where
/// eight such threads hang already. The thread then goes on unwatched: `work` owns all that it uses, and
/// looks at the flag that it is given, which says so, before it changes anything more. It throws nothing.
template <typename Work> auto withinTime(std::chrono::milliseconds limit, Work work)
{
    using Result = std::invoke_result_t<Work, const std::atomic<bool>&>;
    constexpr int mostCalls = 8;

    std::optional<Result> none;
    if (++limitedCalls > mostCalls) {
        --limitedCalls;
        return none;
    }
    const auto isGivenUp = std::make_shared<std::atomic<bool>>(false);
    std::promise<Result> promise;
    std::future<Result> result = promise.get_future();
    try {
        std::thread([work = std::move(work), promise = std::move(promise), isGivenUp]() mutable {
            promise.set_value(work(*isGivenUp));
            --limitedCalls;
        }).detach();
    } catch (const std::system_error&) { // The system has no more threads.
        --limitedCalls;
        return none;
    }
    if (result.wait_for(limit) == std::future_status::ready)
        return std::optional<Result>(result.get());
    *isGivenUp = true;
    return none;
}

} // namespace korvane::windows_platform
