// Programs that are started automatically.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

namespace korvane::platform {

/// The items of one kind. A failure is an empty list, with a short text in `error` (may be null). Main
/// thread only. Linux: not supported, as there are no such concepts.
QList<StartupItem> listRunItems(QString* error);
QList<StartupItem> listScheduledTasks(QString* error);
QList<StartupItem> listShellExtensions(QString* error);

/// Enables or disables the run item `name` of `source`.
OpResult setRunItemEnabled(StartupSource source, const QString& name, bool enabled);

} // namespace korvane::platform
