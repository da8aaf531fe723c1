// Going through a directory tree by handles: the one traversal of the back end.
#pragma once

#include "platform/linux/sys/proc_fs.h"

#include <cstddef>
#include <string>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

class TreeWalk;

/// A name in a directory, as getdents64 tells of it.
struct TreeEntry
{
    const char* name;   ///< NUL-terminated; any bytes but "/".
    unsigned char type; ///< DT_REG, DT_DIR, DT_LNK...; DT_UNKNOWN where that cannot be told.
};

/// Is shown a tree. Every function may end the walk.
class TreeVisitor
{
public:
    enum class Step { GoOn, Descend, Stop };

    virtual ~TreeVisitor() = default;

    /// An entry of walk.directory(). Only a directory can be descended into, which is done after all
    /// entries beside it have been shown.
    virtual Step entry(TreeWalk& walk, const TreeEntry& entry) = 0;

    /// walk.directory() now is a directory that was to be descended into; its entries follow.
    virtual Step entered(TreeWalk& walk);

    /// Everything in the directory `name` has been shown; walk.directory() is the one it lies in.
    virtual Step left(TreeWalk& walk, const char* name);

    /// The directory at walk.path() cannot be opened or, also where it is the start, not be read to
    /// its end, for the reason `error`, an errno: EXDEV where another file system is mounted and the
    /// walk stays on its own. Where it has been entered, left() follows all the same.
    virtual Step failed(TreeWalk& walk, int error);

protected:
    TreeVisitor() = default;
    TreeVisitor(const TreeVisitor&) = default;
    TreeVisitor& operator=(const TreeVisitor&) = default;
    TreeVisitor(TreeVisitor&&) = default;
    TreeVisitor& operator=(TreeVisitor&&) = default;
};

/// One walk: no recursion, at most `maxHandles` open directories, and memory for the way down and
/// for the names of the directories beside it. Links are shown, never followed. On the way back, a
/// closed handle is had again from the level below, so that depth costs no more than its directories.
/// Each entry, and each directory that is opened or cannot be, is a step to the Watchdog.
class TreeWalk
{
public:
    static constexpr std::size_t maxHandles = 256;

    enum class Mounts {
        SkipKernelMade, ///< Other mounts are walked, but for the kernel's own: proc, sysfs...
        Stay,           ///< No mount is entered.
    };

    explicit TreeWalk(Mounts mounts);
    ~TreeWalk();
    TreeWalk(const TreeWalk&) = delete;
    TreeWalk& operator=(const TreeWalk&) = delete;
    TreeWalk(TreeWalk&&) = delete;
    TreeWalk& operator=(TreeWalk&&) = delete;

    /// Walks the directory `name` of the directory handle `at` (AT_FDCWD: of the current one); where
    /// it is a link, only with `followLink`. `shownAs` begins the paths. Returns 0, or the errno with
    /// which the start could not be opened; whether the visitor has stopped, it knows itself.
    int run(int at, const char* name, bool followLink, std::string shownAs, TreeVisitor& visitor);

    /// A handle of the directory that the visitor is told of, for as long as it is; -1 where its
    /// handle was closed, and it or one above it was found to be moved away meanwhile.
    int directory();

    /// The path of directory().
    const std::string& path() const { return m_path; }

    /// The path of an entry of directory().
    std::string pathOf(const char* name) const;

private:
    using Step = TreeVisitor::Step;

    /// A directory on the way down.
    struct Level
    {
        UniqueFd handle;             ///< Closed where it is one of too many.
        std::size_t pathSize = 0;    ///< Of its path, in m_path.
        std::size_t namesBefore = 0; ///< Names in m_pending that are not its entries.
        dev_t device = 0;            ///< What `handle` was, once it is closed.
        ino_t inode = 0;
        bool isLost = false; ///< It cannot be opened again.
    };

    Step showEntries(TreeVisitor& visitor);
    Step showRead(std::size_t bytes, TreeVisitor& visitor);
    Step descend(TreeVisitor& visitor);
    Step ascend(TreeVisitor& visitor);
    int openEntry(int parent, const char* name);
    int openWithin(int parent, const char* name);
    bool isForbidden(int parent, int opened) const;
    void closeOldest();
    void leaveLevel();
    bool reopen();
    void hold(UniqueFd opened);
    UniqueFd openSame(int parent, const char* name, std::size_t level) const;

    Mounts m_mounts;
    bool m_entersKernelMade = false;
    bool m_hasOpenat2 = true;
    std::size_t m_handleLimit = maxHandles;
    std::vector<char> m_entries; ///< What getdents64 fills.
    std::string m_path;
    std::vector<Level> m_levels;
    std::size_t m_closedBefore = 1;           ///< Levels from 1 up to this one have no handle.
    std::size_t m_leftSince = 0;              ///< Directories, since the last way from the start.
    std::string m_pending;                    ///< Names yet to descend into, each NUL-terminated,
    std::vector<std::size_t> m_pendingStarts; ///< and where each starts.
};

} // namespace korvane::linux_platform
