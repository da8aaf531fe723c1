// Extensions of the desktop's file manager.
#pragma once

#include "base/system_records.h"

namespace korvane::windows_platform {

/// The approved extensions of the machine (both views) and the user, each with its class as the command
/// and its server as the executable; one that is blocked is not enabled. `error` (may be null) gets a
/// text where nothing can be read.
QList<StartupItem> listApprovedExtensions(QString* error);

} // namespace korvane::windows_platform
