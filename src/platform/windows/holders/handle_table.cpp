// Reads the system's table of handles.
#include "platform/windows/holders/handle_table.h"

#include "platform/windows/sys/system_information.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <vector>

namespace korvane::windows_platform {

namespace {

// The records of SystemExtendedHandleInformation.
struct TableHead
{
    quint64 count;
    quint64 reserved;
};

struct TableEntry
{
    quint64 object;
    quint64 pid;
    quint64 handle;
    quint32 access;
    quint16 backTrace;
    quint16 type;
    quint32 attributes;
    quint32 reserved;
};

} // namespace

std::vector<TableHandle> openFileHandles(HANDLE file)
{
    constexpr int allHandles = 64;
    const std::vector<std::byte> table = querySystem(allHandles);
    TableHead head{};
    if (table.size() < sizeof head)
        return {};
    std::memcpy(&head, table.data(), sizeof head);
    const std::size_t room = (table.size() - sizeof head) / sizeof(TableEntry);
    const std::span entries(reinterpret_cast<const TableEntry*>(table.data() + sizeof head),
                            std::min<std::size_t>(head.count, room));

    const auto own = std::find_if(entries.begin(), entries.end(), [file](const TableEntry& entry) {
        return entry.pid == GetCurrentProcessId() && entry.handle == quint64(quintptr(file));
    });
    std::vector<TableHandle> found;
    if (own == entries.end())
        return found;
    for (const TableEntry& entry : entries) {
        if (entry.type == own->type)
            found.push_back({static_cast<quint32>(entry.pid), entry.handle, entry.access});
    }
    return found;
}

} // namespace korvane::windows_platform
