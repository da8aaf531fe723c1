// Paths that stay on this machine's own disks, links on the way included.
#pragma once

#include <QString>

#include <optional>

namespace korvane::windows_platform {

/// The absolute form of `path` with all junctions and symbolic links on its way replaced by what they
/// lead to; none where that is not on a drive of this machine, or goes round in circles. "C:" is the
/// whole drive. Opening the result asks no other machine, which would be handed the user's credentials
/// and may not answer. Nothing on the way is opened but the links themselves. Any thread.
std::optional<QString> localPath(const QString& path);

/// Whether a listing's entry is a name for what lies elsewhere: a junction, a mounted volume or a
/// symbolic link. `tag` is its dwReserved0, which Wine leaves 0.
bool isLinkElsewhere(unsigned long attributes, unsigned long tag);

} // namespace korvane::windows_platform
