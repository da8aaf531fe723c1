// Network endpoints and the processes that hold them.
#pragma once

#include "base/shown_processes.h"
#include "base/system_records.h"

namespace korvane::platform {

/// Every TCP and UDP endpoint, a row for each process that holds it. Adds those processes to `shown`.
/// A failure is an empty list, with a short text in `error` (may be null). Main thread only.
/// Linux: the socket diagnostics of netlink, or /proc/net; /proc/PID/fd.
/// Windows: GetExtendedTcpTable and GetExtendedUdpTable, which name one owner; NtQuerySystemInformation.
QList<NetConnection> listConnections(ShownProcesses& shown, QString* error);

} // namespace korvane::platform
