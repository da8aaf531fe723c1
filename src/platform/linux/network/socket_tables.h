// The kernel's tables of TCP and UDP sockets, and the parsers of the two forms it tells them in.
#pragma once

#include "base/system_records.h"

#include <QByteArrayView>

#include <span>
#include <vector>

namespace korvane::linux_platform {

/// A socket as the kernel lists it, its owner not yet known.
struct Socket
{
    NetConnection endpoint;
    quint64 inode = 0; ///< 0 when no process can hold it.
};

/// One of the four tables. `protocol` and `family` are numbered as in NetConnection.
struct SocketTable
{
    quint32 protocol;
    quint32 family;
    const char* procFile; ///< Its text form.
};

/// TCP and UDP, each for IPv4 and IPv6.
std::span<const SocketTable> socketTables();

enum class DumpState {
    More,    ///< The kernel has more to tell.
    Done,    ///< All told.
    Refused, ///< The kernel does not tell this table.
};

/// How far the dump of one table has come.
struct Dump
{
    DumpState state = DumpState::More;
    bool isInterrupted = false; ///< The table changed meanwhile: sockets may be missing.
    int errorNumber = 0;        ///< Why it was refused.
};

/// Appends the sockets that a datagram of the kernel's socket diagnostics lists (netlink,
/// NETLINK_SOCK_DIAG), and notes in `dump` what it says of the dump itself. Messages of another
/// dump than `sequence`, of another family, or cut short are passed over.
void parseSocketDump(QByteArrayView datagram, quint32 sequence, const SocketTable& table,
                     Dump& dump, std::vector<Socket>& sockets);

/// Appends the sockets of a text in the form of /proc/net/{tcp,tcp6,udp,udp6}; damaged lines are
/// passed over.
void parseProcNet(QByteArrayView text, const SocketTable& table, std::vector<Socket>& sockets);

/// Replaces `sockets` with those of all tables: from the kernel's socket diagnostics, or from
/// /proc/net where these are refused. The text for the user when that failed, else empty. Waits at
/// most some seconds for the kernel.
QString readSocketTables(std::vector<Socket>& sockets);

} // namespace korvane::linux_platform
