// The processes that hold files open, and making them let go.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

#include <QList>

namespace korvane::platform {

/// A handle that a process has on a file. The start time tells the process from a later one of its PID.
struct HeldFile
{
    quint32 pid = 0;
    quint64 startTime = 0;
    quint64 handle = 0;
};

/// Finds the processes that hold any of `paths`; `held` receives their handles. Main thread only, as all
/// of these. Linux: not supported.
LockerProbe findFileHolders(const QList<QString>& paths, QList<HeldFile>& held);

/// Closes handles in the processes that a probe found.
OpResult closeHeldFiles(const QList<HeldFile>& held);

/// Has the paths deleted at the next restart.
OpResult scheduleDeleteOnReboot(const QList<QString>& paths);

} // namespace korvane::platform
