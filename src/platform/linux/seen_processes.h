// What the listings saw under each PID, so that an order to end a process cannot reach another one.
#pragma once

#include <QHash>

namespace korvane::linux_platform {

/// The start time, in clock ticks after boot, of the process that the last listing of processes or
/// connections saw under each PID. Main thread only.
QHash<quint32, quint64>& seenProcesses();

} // namespace korvane::linux_platform
