// The two streams over which the program speaks with its client.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace korvane {

/// Bytes from and to the client. Each function may be called from any thread, beside the others.
class StandardStreams
{
public:
    virtual ~StandardStreams() = default;

    /// Waits for input and reads what is there, up to the size of `buffer`. The number of bytes; 0 at
    /// the end of the input, negative when it cannot be read.
    virtual std::ptrdiff_t read(std::span<char> buffer) = 0;

    /// Writes and flushes all of `bytes`, waiting where the other end is slow. False when the output
    /// takes no more.
    virtual bool write(std::string_view bytes) = 0;

    /// Whether nobody can send any more, though what was sent may not have been read yet. False where
    /// that cannot be told. Never waits.
    virtual bool inputHasEnded() = 0;

protected:
    StandardStreams() = default;
    StandardStreams(const StandardStreams&) = default;
    StandardStreams& operator=(const StandardStreams&) = default;
    StandardStreams(StandardStreams&&) = default;
    StandardStreams& operator=(StandardStreams&&) = default;
};

} // namespace korvane
