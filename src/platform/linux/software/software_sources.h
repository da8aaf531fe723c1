// The listing of what the package managers have installed.
#pragma once

#include "base/system_records.h"
#include "platform/linux/sys/helper_program.h"

#include <QList>
#include <QString>

namespace korvane::linux_platform {

/// Everything that dpkg, rpm, flatpak (system, then user) and snap have installed. Each is asked
/// only where its database exists: below `root`, empty for the machine's own, and for the user in
/// FLATPAK_USER_DIR or the data directory. One that fails is left out, which is logged once. When
/// nothing could be read the list is empty and `error` (may be null) names what was tried. `limits`
/// are for the programs that are run, four at most, side by side.
QList<UninstallEntry> listInstalledSoftware(const QString& root, const HelperLimits& limits,
                                            QString* error);

} // namespace korvane::linux_platform
