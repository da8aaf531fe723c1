// Finding the files that a path of another process means.
#pragma once

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/mount_tables.h"

#include <QByteArray>

#include <utility>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

/// Goes a path as a process would, from its root and with its mounts, but never onto a mount that is
/// not local: its server may never answer. A long way is not gone to its end.
class PathFollower
{
public:
    /// The process's root is at `root` in the directory handle `proc`, and `table` has its mounts; both
    /// outlive this object.
    PathFollower(int proc, QByteArray root, const MountTable& table)
        : m_proc(proc), m_root(std::move(root)), m_table(table)
    {
    }

    /// What was found on the way, by device and inode: the file at the absolute `path`, or else the
    /// last directory that could be reached; links that lead on, and directories that ".." leaves.
    /// Without any of them the path would mean something else.
    std::vector<std::pair<dev_t, ino_t>> follow(const QByteArray& path);

    /// Whether this program had not the means to go on: an errno, or 0.
    int error() const { return m_error; }

private:
    // Each returns 0, or the errno for which the way ends.
    int goToRoot();
    int step(const QByteArray& name);
    int goTo(const QByteArray& path, const QByteArray& name);
    void noteHere();

    int m_proc;
    QByteArray m_root;
    const MountTable& m_table;
    UniqueFd m_here;    ///< The directory that was reached,
    QByteArray m_path;  ///< and its path, without links.
    QByteArray m_ahead; ///< What is to be gone yet.
    int m_links = 0;
    int m_error = 0;
    std::vector<std::pair<dev_t, ino_t>> m_found;
};

} // namespace korvane::linux_platform
