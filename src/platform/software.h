// Installed software and its removal.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

namespace korvane::platform {

/// Every installed program. A failure is an empty list, with a short text in `error` (may be null).
/// Blocks for about 10 s at most. Main thread only.
/// Linux: /var/lib/dpkg; the programs rpm, flatpak and snap where the machine has databases. Each
/// source is a step to the Watchdog, as the user's one may be on a dead server.
/// Windows: the keys Uninstall of HKEY_LOCAL_MACHINE (both views) and HKEY_CURRENT_USER.
QList<UninstallEntry> listSoftware(QString* error);

/// Starts the command that uninstalls `entry`, and does not wait for its end. Linux: not supported.
/// Windows: CreateProcessW; ShellExecuteExW where it demands more rights, of which the user is asked for
/// 130 s at most.
OpResult uninstallSoftware(const UninstallEntry& entry);

} // namespace korvane::platform
