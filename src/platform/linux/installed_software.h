// Where installed software is recorded on this machine, and the listing from there.
#pragma once

#include "core/system_records.h"
#include "platform/linux/helper_program.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace korvane::linux_platform {

/// The places and programs that are asked: by default those of this machine and its user.
struct SoftwareSources
{
    SoftwareSources();

    QString dpkg = QStringLiteral("/var/lib/dpkg");
    QStringList rpmDatabases{QStringLiteral("/var/lib/rpm"),
                             QStringLiteral("/usr/lib/sysimage/rpm")};
    QString flatpakSystem; ///< FLATPAK_SYSTEM_DIR, or /var/lib/flatpak
    QString flatpakUser;   ///< FLATPAK_USER_DIR, or flatpak in the user's data directory
    QString snapd = QStringLiteral("/var/lib/snapd");
    QString snapMounts = QStringLiteral("/snap");

    // Programs with their first arguments.
    QStringList rpmProgram{QStringLiteral("rpm")};
    QStringList flatpakProgram{QStringLiteral("flatpak")};
    QStringList snapProgram{QStringLiteral("snap")};
    HelperLimits helperLimits; ///< For each run.
};

/// Everything that dpkg, rpm, flatpak (system, user) and snap have installed, in this order; each
/// is asked only where its database exists. One that fails is left out, which is logged once. When
/// nothing could be read the list is empty and `error` (may be null) names what was tried.
QList<UninstallEntry> listInstalledSoftware(const SoftwareSources& sources, QString* error);

} // namespace korvane::linux_platform
