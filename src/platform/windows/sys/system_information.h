// The tables that NtQuerySystemInformation fills.
#pragma once

#include <QString>

#include <cstddef>
#include <memory>
#include <optional>
#include <span>

namespace korvane::windows_platform {

/// A table as the system wrote it, aligned for its records; empty where there is none.
struct SystemTable
{
    std::unique_ptr<std::byte[]> memory;
    std::size_t size = 0; ///< Bytes that are filled.

    std::span<const std::byte> bytes() const { return {memory.get(), size}; }
};

/// The table of this class (5: processes and their threads; 64: all handles), by
/// NtQuerySystemInformation. Empty on a failure, and where it takes more than 256 MiB. Any thread.
SystemTable querySystem(int informationClass);

/// The text of `length` bytes at `place`, as a UNICODE_STRING in `memory` says; empty for 0 bytes, and
/// none where it does not lie in `memory` whole.
std::optional<QString> textInside(std::span<const std::byte> memory, const void* place,
                                  std::size_t length);

} // namespace korvane::windows_platform
