// The tables that NtQuerySystemInformation fills.
#pragma once

#include <QString>

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace korvane::windows_platform {

/// The table of this class (5: processes and their threads; 64: all handles) as the system wrote it, by
/// NtQuerySystemInformation. Empty on a failure, and where it takes more than 256 MiB. Any thread.
std::vector<std::byte> querySystem(int informationClass);

/// The text of `length` bytes at `place`, as a UNICODE_STRING in `memory` says; empty for 0 bytes, and
/// none where it does not lie in `memory` whole.
std::optional<QString> textInside(std::span<const std::byte> memory, const void* place,
                                  std::size_t length);

} // namespace korvane::windows_platform
