// Asking until the table fits, as it may grow meanwhile.
#include "platform/windows/sys/system_information.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include <windows.h>

#include <winternl.h>

namespace korvane::windows_platform {

std::vector<std::byte> querySystem(int informationClass)
{
    constexpr ULONG firstSize = 512 * 1024;
    constexpr ULONG largestSize = 256 * 1024 * 1024;
    constexpr auto tooSmall = static_cast<NTSTATUS>(0xc0000004); // STATUS_INFO_LENGTH_MISMATCH

    for (ULONG size = firstSize; size <= largestSize;) {
        std::vector<std::byte> table(size);
        ULONG needed = 0;
        const NTSTATUS status = NtQuerySystemInformation(
            static_cast<SYSTEM_INFORMATION_CLASS>(informationClass), table.data(), size, &needed);
        if (status >= 0) {
            table.resize(std::min(needed, size));
            return table;
        }
        if (status != tooSmall)
            break;
        const ULONG some = size / 4; // For what is started meanwhile.
        size = std::max(size * 2, needed < largestSize ? needed + some : needed);
    }
    return {};
}

std::optional<QString> textInside(std::span<const std::byte> memory, const void* place,
                                  std::size_t length)
{
    if (length == 0)
        return QString();
    // Below the beginning it becomes far too large.
    const std::uintptr_t offset =
        std::bit_cast<std::uintptr_t>(place) - std::bit_cast<std::uintptr_t>(memory.data());
    if (offset > memory.size() || length > memory.size() - offset)
        return std::nullopt;
    QString text(static_cast<qsizetype>(length / sizeof(QChar)), Qt::Uninitialized);
    std::memcpy(text.data(), memory.data() + offset,
                static_cast<std::size_t>(text.size()) * sizeof(QChar));
    return text;
}

} // namespace korvane::windows_platform
