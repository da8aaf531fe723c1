// Paths in the form that lifts the system's limit of 260 characters.
#pragma once

#include <QString>

namespace korvane::windows_platform {

/// An absolute path on a drive as "\\?\X:\…", native separators, "." and ".." resolved; any other path
/// as it is, with native separators. For opening: people are shown the path without the prefix.
QString extendedPath(const QString& path);

/// Whether the path begins with a drive ("X:\", "\\?\X:\"): no share, device, pipe or relative path.
bool isOnDrive(const QString& path);

/// The path without "\\?\" where that stands before a drive; native separators.
QString displayPath(const QString& path);

} // namespace korvane::windows_platform
