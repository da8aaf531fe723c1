// Connection enumeration: the system's tables of TCP and UDP, joined with its table of processes.
#include "platform/network.h"

#include "platform/windows/processes/process_table.h"
#include "platform/windows/sys/text.h"

#include <QHash>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <cstddef>
#include <type_traits>
#include <vector>

#include <winsock2.h>
#include <ws2ipdef.h>

#include <iphlpapi.h>
#include <ws2tcpip.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace windows_platform;

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
        std::vector<std::byte> memory(given);
        error = ask(memory.data(), &size);
        if (error == ERROR_SUCCESS) {
            const auto& table = *reinterpret_cast<const Table*>(memory.data());
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
    // What waits for its end has no owner: its PID is 0, which no process of the table has.
    QHash<quint32, ProcessRecord> owners;
    for (const ProcessRecord& process : processTable().value_or(std::vector<ProcessRecord>()))
        owners.insert(process.pid, process);
    for (NetConnection& row : rows) {
        const auto owner = owners.constFind(row.pid);
        if (owner == owners.cend())
            continue;
        row.processName = owner->name;
        shown.insert(row.pid, owner->createdAt);
    }
    return rows;
}

} // namespace korvane
