// Whether a path may be opened at all.
#pragma once

#include <QString>

namespace korvane::platform {

/// Whether `path` leads to a drive of this machine, so that it can be looked at without asking another:
/// merely to see whether "\\host\x" exists hands that host the user's credentials. Asked before anything
/// at a path from outside is opened, existence included; false where that cannot be told. Opens nothing
/// that is not local. Any thread.
/// Windows: the text by GetFullPathNameW, the drive by QueryDosDeviceW and GetDriveTypeW, and each
/// directory on the way by GetFileAttributesW and, of a link, FSCTL_GET_REPARSE_POINT. No such path are
/// network drives, device names, alternate data streams and links to any of them. Linux: always true.
bool isLocalPath(const QString& path);

} // namespace korvane::platform
