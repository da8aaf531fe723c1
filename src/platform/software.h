// Installed software and its removal.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

namespace korvane::platform {

/// Every installed program. A failure is an empty list, with a short text in `error` (may be null).
/// Blocks for about 10 s at most. Main thread only.
/// Linux: /var/lib/dpkg; the programs rpm, flatpak and snap where the machine has databases. Each
/// source is a step to the Watchdog, as the user's one may be on a dead server.
QList<UninstallEntry> listSoftware(QString* error);

/// Runs the command that uninstalls `entry`. Linux: not supported.
OpResult uninstallSoftware(const UninstallEntry& entry);

} // namespace korvane::platform
