// Programs that are started automatically.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

namespace korvane::platform {

/// The items of one kind. A failure is an empty list, with a short text in `error` (may be null). Main
/// thread only. Linux: not supported, as there are no such concepts.
/// Windows: the keys Run with StartupApproved; Task Scheduler 2.0 (ITaskService), for 5 s at most: the
/// tasks with a trigger at boot or logon; the keys "Shell Extensions".
QList<StartupItem> listRunItems(QString* error);
QList<StartupItem> listScheduledTasks(QString* error);
QList<StartupItem> listShellExtensions(QString* error);

/// Enables or disables the run item that listRunItems() has first under `source` and `name`, case
/// included. Linux: not supported.
/// Windows: StartupApproved, which takes an administrator's rights for the machine's.
OpResult setRunItemEnabled(StartupSource source, const QString& name, bool enabled);

} // namespace korvane::platform
