// The Run keys, and the switches that the task manager keeps for them.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

namespace korvane::windows_platform {

/// The values of the Run keys: the machine's 64-bit view, its 32-bit view, the user's. What is switched
/// off is listed as such. `error` (may be null) gets a text where nothing can be read.
QList<StartupItem> listRunKeys(QString* error);

/// Switches the item that listRunKeys() has first under `source` and `name`, case included. For the
/// machine's it takes an administrator's rights.
OpResult switchRunItem(StartupSource source, const QString& name, bool enabled);

} // namespace korvane::windows_platform
