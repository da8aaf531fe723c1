// Parsers of what the package managers keep and print about installed software. They take any
// bytes; what is damaged is left out. A command to uninstall an entry is only made of names that
// hold nothing a shell or a program's option reader would take for its own; else it is empty.
#pragma once

#include "core/system_records.h"

#include <QByteArrayList>
#include <QByteArrayView>
#include <QList>
#include <QString>

#include <optional>

namespace korvane::linux_platform {

/// The packages that are installed by dpkg's status file and its journal, the files of
/// /var/lib/dpkg/updates in their order, which dpkg has not merged yet. `identifier` is NAME:ARCH.
QList<UninstallEntry> parseDpkgDatabase(QByteArrayView status, const QByteArrayList& journal);

/// The query format to pass to `rpm -qa --queryformat` for parseRpmPackages().
QString rpmQueryFormat();

/// The packages in rpm's output. `identifier` is NAME-VERSION-RELEASE.ARCH.
QList<UninstallEntry> parseRpmPackages(QByteArrayView output);

/// The value to pass to `flatpak list --columns` for parseFlatpakList().
QString flatpakColumns();

/// The applications and runtimes in flatpak's output for the user's own or the system's
/// installation. `identifier` is the whole reference KIND/ID/ARCH/BRANCH, which is also the place
/// below the installation's directory; empty when it is no such reference.
QList<UninstallEntry> parseFlatpakList(QByteArrayView output, bool perUser);

/// The snaps in the output of `snap list --unicode=never --color=never`; none when that is no such
/// table. `identifier` is NAME_REVISION, as snapd names its files; empty when it is no such name.
std::optional<QList<UninstallEntry>> parseSnapList(QByteArrayView output);

} // namespace korvane::linux_platform
