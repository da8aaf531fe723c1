// Paths on drives by their text alone, and where links lead.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace korvane::windows_platform {

/// The absolute path "X:\…" that the system makes of `path`, without "\\?\"; empty where `path` is not
/// on a drive, has a name that ends in a dot or blank, names a device (CON, "nul.txt") in any of its parts or a stream ("a:b"), or cannot be
/// the name of anything. Relative paths are those of the current directory. Opens nothing.
QString drivePath(const QString& path);

/// The directory in which the entry at such a path lies; the drive's root for the root itself.
QString parentPath(const QString& drivePath);

/// The path "X:\…" of what the kernel calls "\??\X:\…"; empty for every other name.
QString pathOfObject(const QString& name);

/// Where the link at `link`, a drivePath(), leads. `data` is what FSCTL_GET_REPARSE_POINT says of it.
/// The link itself where its target is a volume of this machine that is mounted there, or it is no link
/// (a file in the cloud); none where it leads elsewhere, or the data are not whole.
std::optional<QString> linkTarget(const QByteArray& data, const QString& link);

} // namespace korvane::windows_platform
