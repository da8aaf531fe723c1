// Calls of the system that may never return.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

namespace korvane::windows_platform {

/// What `work` returns on a thread of its own; none when it takes longer than `limit`. It then goes on
/// unheard, so it must own whatever it touches; callers keep the number of such threads small.
template <typename Result>
std::optional<Result> callWithin(std::chrono::milliseconds limit, std::function<Result()> work)
{
    auto promise = std::make_shared<std::promise<Result>>();
    std::future<Result> answer = promise->get_future();
    try {
        std::thread([promise, work = std::move(work)] { promise->set_value(work()); }).detach();
    } catch (const std::system_error&) {
        return std::nullopt; // No thread is to be had.
    }
    if (answer.wait_for(limit) != std::future_status::ready)
        return std::nullopt;
    return answer.get();
}

} // namespace korvane::windows_platform
