// Opening a directory by its path, where root goes no way that others can change.
#pragma once

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/or_errno.h"

#include <QByteArray>

namespace korvane::linux_platform {

/// A directory that was opened by its path.
struct DirectoryAtPath
{
    UniqueFd handle; ///< For what lies in it, not for reading it (O_PATH).
    QByteArray path; ///< The real one.
};

enum class MissingDirectories { Fail, Make };

/// Opens the directory at this absolute path, links followed. For root, EPERM where another user
/// can change what the path leads to: by a directory on the way, or at its end, which is another
/// user's or others may write (in a sticky one, as /tmp, root's own directories stay what they are),
/// or by any link but root's own in a directory that root alone may write.
/// MissingDirectories::Make makes what is missing, for this user alone.
OrErrno<DirectoryAtPath> openDirectoryAt(const QByteArray& path,
                                         MissingDirectories missing = MissingDirectories::Fail);

} // namespace korvane::linux_platform
