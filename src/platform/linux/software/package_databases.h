// Parsers of what the package managers keep and print about installed software. They take any
// bytes and leave out what is damaged. A command is only made of names in which neither a shell nor
// a program's option reader finds anything of its own; otherwise it is empty.
#pragma once

#include "base/system_records.h"

#include <QByteArrayList>
#include <QByteArrayView>
#include <QList>
#include <QString>

#include <optional>

namespace korvane::linux_platform {

/// The packages that occupy the disk, half installed ones too, in dpkg's status file and its journal:
/// the files of /var/lib/dpkg/updates in their order, which dpkg has yet to merge. `identifier` is
/// NAME:ARCH.
QList<UninstallEntry> parseDpkgDatabase(QByteArrayView status, const QByteArrayList& journal);

/// The query format for `rpm -qa` of which parseRpmPackages() takes the output.
QString rpmQueryFormat();

/// The packages in rpm's output. `identifier` is NAME-VERSION-RELEASE.ARCH.
QList<UninstallEntry> parseRpmPackages(QByteArrayView output);

/// The columns for `flatpak list` of which parseFlatpakList() takes the output.
QString flatpakColumns();

/// The applications and runtimes of the user's own or of the system's installation. `identifier` is
/// KIND/ID/ARCH/BRANCH, as in the installation's directory; empty for what is no such reference.
QList<UninstallEntry> parseFlatpakList(QByteArrayView output, bool perUser);

/// What `snap list` prints; none when that is no such table. `identifier` is NAME_REVISION, as
/// snapd names its files; empty for what is no such name.
std::optional<QList<UninstallEntry>> parseSnapList(QByteArrayView output);

} // namespace korvane::linux_platform
