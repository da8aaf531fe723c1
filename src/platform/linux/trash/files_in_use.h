// What running programs, and the kernel itself, need of the file system to stay as it is.
#pragma once

#include "platform/linux/trash/mount_tables.h"

#include <QByteArray>
#include <QList>

#include <utility>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

/// Which files are in use, from one look through /proc: open, mapped, a working directory, a root or
/// an executable of a process; locked; a loop device's or a layered mount's; swap; and where a
/// session's programs find their credentials or put their temporary files: by what the paths in this
/// user's environments lead to, and by their text in all. A program that may not be looked into (another
/// user's, for one without rights) is known by its locks and sockets alone.
class FilesInUse
{
public:
    /// Looks, without ever waiting for a file system that does not answer. None when this program's
    /// own limits or an unusable /proc left the look incomplete: then anything may be in use.
    /// Before it, the caller lets go of handles of what it wants to ask about.
    static OrErrno<FilesInUse> look(const char* proc = "/proc", const char* sys = "/sys");

    /// Whether the file or directory is in use, whatever its path is and for whom.
    bool has(dev_t device, ino_t inode) const;

    /// Whether what is known to be in use by its path, mapped files and bound sockets among it, is at
    /// this path or below it. The path is a real one, without links on the way.
    bool hasBelow(const QByteArray& canonicalPath) const;

    /// What is mounted.
    const MountTables& mounts() const { return m_mounts; }

private:
    class UseCollector;
    using Identity = std::pair<dev_t, ino_t>;

    FilesInUse() = default;

    std::vector<Identity> m_files; ///< Sorted, as are the
    QList<QByteArray> m_paths;     ///< known paths.
    MountTables m_mounts;
};

} // namespace korvane::linux_platform
