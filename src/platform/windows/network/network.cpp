// Connection enumeration: the system's tables of TCP and UDP, joined with its table of processes.
#include "platform/network.h"

#include "platform/windows/sys/system_information.h"
#include "platform/windows/sys/text.h"

#include <QHash>
#include <QtEndian>

#include <array>
#include <memory>
#include <type_traits>

#include <winsock2.h>
#include <ws2ipdef.h>

#include <iphlpapi.h>
#include <winternl.h>
#include <ws2tcpip.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace windows_platform;

struct Owner
{
    quint64 creationTime = 0;
    QString name;
};
using Owners = QHash<quint32, Owner>; ///< By PID.

/// All processes, also those that may not be opened. Nothing outside the table is read.
Owners readOwners()
{
    const SystemTable table = querySystem(SystemProcessInformation);
    const auto bytes = table.bytes();
    Owners owners;
    for (std::size_t at = 0; at + sizeof(SYSTEM_PROCESS_INFORMATION) <= bytes.size();) {
        const auto& row = *reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(&bytes[at]);
        const auto pid = static_cast<quint32>(reinterpret_cast<quintptr>(row.UniqueProcessId));
        const auto name = reinterpret_cast<quintptr>(row.ImageName.Buffer);
        const auto begin = reinterpret_cast<quintptr>(bytes.data());
        const bool hasName = name >= begin && name <= begin + bytes.size() &&
                             row.ImageName.Length <= begin + bytes.size() - name;
        owners.insert(
            pid, {static_cast<quint64>(row.CreateTime.QuadPart),
                  hasName ? fromWide({row.ImageName.Buffer, row.ImageName.Length / sizeof(wchar_t)})
                          : QString()});
        if (row.NextEntryOffset == 0 || row.NextEntryOffset % alignof(SYSTEM_PROCESS_INFORMATION))
            break;
        at += row.NextEntryOffset;
    }
    return owners;
}

/// The textual form of an address in network order. Of a link-local one it does not name the link.
template <typename Address> QString addressText(int family, const Address& address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    return QString::fromLatin1(inet_ntop(family, &address, text.data(), text.size()));
}

/// A port that the system keeps in network order in the lower half; the upper may hold anything.
quint16 portOf(DWORD port)
{
    return qFromBigEndian(static_cast<quint16>(port));
}

/// NetConnection::state; the system counts from 1.
quint32 stateOf(DWORD state)
{
    constexpr quint32 unknown = 12;
    return state >= MIB_TCP_STATE_CLOSED && state <= MIB_TCP_STATE_DELETE_TCB
               ? state - MIB_TCP_STATE_CLOSED
               : unknown;
}

NetConnection endpointOf(const MIB_TCPROW_OWNER_PID& row)
{
    NetConnection endpoint;
    endpoint.localAddress = addressText(AF_INET, row.dwLocalAddr);
    endpoint.localPort = portOf(row.dwLocalPort);
    endpoint.state = stateOf(row.dwState);
    endpoint.remoteAddress = addressText(AF_INET, row.dwRemoteAddr);
    endpoint.remotePort = portOf(row.dwRemotePort);
    return endpoint;
}

NetConnection endpointOf(const MIB_TCP6ROW_OWNER_PID& row)
{
    NetConnection endpoint;
    endpoint.family = 1;
    endpoint.localAddress = addressText(AF_INET6, row.ucLocalAddr);
    endpoint.localPort = portOf(row.dwLocalPort);
    endpoint.state = stateOf(row.dwState);
    endpoint.remoteAddress = addressText(AF_INET6, row.ucRemoteAddr);
    endpoint.remotePort = portOf(row.dwRemotePort);
    return endpoint;
}

NetConnection endpointOf(const MIB_UDPROW_OWNER_PID& row)
{
    NetConnection endpoint;
    endpoint.protocol = 1;
    endpoint.localAddress = addressText(AF_INET, row.dwLocalAddr);
    endpoint.localPort = portOf(row.dwLocalPort);
    return endpoint;
}

NetConnection endpointOf(const MIB_UDP6ROW_OWNER_PID& row)
{
    NetConnection endpoint;
    endpoint.protocol = 1;
    endpoint.family = 1;
    endpoint.localAddress = addressText(AF_INET6, row.ucLocalAddr);
    endpoint.localPort = portOf(row.dwLocalPort);
    return endpoint;
}

/// Appends the rows of one table, which `ask(buffer, &size)` fills: ERROR_SUCCESS or the error.
template <typename Table, typename Ask> DWORD appendTable(QList<NetConnection>& rows, Ask ask)
{
    constexpr DWORD largestSize = 64 * 1024 * 1024;
    constexpr std::size_t header = offsetof(Table, table);
    using Row = std::remove_extent_t<decltype(Table::table)>;

    DWORD error = ERROR_INSUFFICIENT_BUFFER;
    for (DWORD size = 64 * 1024; error == ERROR_INSUFFICIENT_BUFFER && size <= largestSize;) {
        const DWORD given = size;
        const auto memory = std::make_unique<std::byte[]>(given);
        error = ask(memory.get(), &size);
        if (error == ERROR_SUCCESS) {
            const auto& table = *reinterpret_cast<const Table*>(memory.get());
            if (table.dwNumEntries > (given - header) / sizeof(Row))
                return ERROR_INVALID_DATA;
            for (const Row* row = table.table; row != table.table + table.dwNumEntries; ++row) {
                rows += endpointOf(*row);
                rows.last().pid = row->dwOwningPid;
            }
        }
        size = std::max(size, given) + std::max(size, given) / 4; // For what is opened meanwhile.
    }
    return error;
}

template <typename Table> DWORD appendTcp(QList<NetConnection>& rows, ULONG family)
{
    return appendTable<Table>(rows, [family](void* buffer, DWORD* size) {
        return GetExtendedTcpTable(buffer, size, FALSE, family, TCP_TABLE_OWNER_PID_ALL, 0);
    });
}

template <typename Table> DWORD appendUdp(QList<NetConnection>& rows, ULONG family)
{
    return appendTable<Table>(rows, [family](void* buffer, DWORD* size) {
        return GetExtendedUdpTable(buffer, size, FALSE, family, UDP_TABLE_OWNER_PID, 0);
    });
}

/// Appends all four tables: ERROR_SUCCESS or the error.
DWORD appendTables(QList<NetConnection>& rows)
{
    struct Part
    {
        DWORD (*append)(QList<NetConnection>& rows, ULONG family);
        ULONG family;
    };
    static constexpr std::array<Part, 4> parts{{
        {appendTcp<MIB_TCPTABLE_OWNER_PID>, AF_INET},
        {appendTcp<MIB_TCP6TABLE_OWNER_PID>, AF_INET6},
        {appendUdp<MIB_UDPTABLE_OWNER_PID>, AF_INET},
        {appendUdp<MIB_UDP6TABLE_OWNER_PID>, AF_INET6},
    }};
    for (const Part& part : parts) {
        const DWORD error = part.append(rows, part.family);
        const bool isAbsent = part.family == AF_INET6 && error == ERROR_NOT_SUPPORTED;
        if (error != ERROR_SUCCESS && !isAbsent)
            return error;
    }
    return ERROR_SUCCESS;
}

} // namespace

QList<NetConnection> platform::listConnections(ShownProcesses& shown, QString* error)
{
    QList<NetConnection> rows;
    const DWORD result = appendTables(rows);
    if (result != ERROR_SUCCESS) {
        if (error != nullptr)
            *error = u"无法读取网络连接: %1"_s.arg(errorText(result));
        return {};
    }
    const Owners owners = readOwners();
    for (NetConnection& row : rows) {
        // What waits for its end has no owner: 0 is no process there.
        const auto owner = row.pid == 0 ? owners.cend() : owners.constFind(row.pid);
        if (owner == owners.cend())
            continue;
        row.processName = owner->name;
        shown.insert(row.pid, owner->creationTime);
    }
    return rows;
}

} // namespace korvane
