// Questions to the system that may never be answered.
#pragma once

#include "platform/windows/holders/open_file.h"

#include <chrono>
#include <compare>
#include <functional>
#include <vector>

namespace korvane::windows_platform {

/// What tells a handle from all others, as long as it is open.
struct HandleKey
{
    quint32 pid = 0;
    quint64 startTime = 0;
    quint64 handle = 0;

    // NOLINTNEXTLINE(modernize-use-nullptr): the zero is one that the compiler compares with.
    auto operator<=>(const HandleKey&) const = default;
};

struct Answers
{
    std::vector<std::optional<OpenFile>> files; ///< One a key; none, too, where no answer came.
    std::size_t unasked = 0; ///< How many, from the last on, were not asked about.
};

/// The answer about the handle with this index. Runs on other threads, and may still run when nobody waits
/// any more: it shall own what it uses.
using Question = std::function<std::optional<OpenFile>(std::size_t)>;

/// How many threads may be stuck in a question, in all of this process.
constexpr std::size_t maxStuck = 8;

/// Asks about one handle after the other on a thread that is given up, for another, when an answer takes
/// longer than `limit`. What is stuck is not asked about again while it is. Any thread.
Answers askWithLimit(std::vector<HandleKey> keys, Question ask,
                     std::chrono::milliseconds limit = std::chrono::seconds(1));

} // namespace korvane::windows_platform
