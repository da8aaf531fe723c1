// Going through a directory tree by handles: the one traversal of the back end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

class TreeWalk;

/// A name in a directory, as getdents64 tells of it.
struct TreeEntry
{
    const char* name;  ///< NUL-terminated; any bytes but "/".
    std::size_t length;
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

    /// The directory at walk.path(), below the start, cannot be opened or read to its end, for the
    /// reason `error`, an errno: EXDEV where another file system is mounted and the walk stays on
    /// its own. Where it has been entered, left() follows all the same.
    virtual Step failed(TreeWalk& walk, int error);

protected:
    TreeVisitor() = default;
    TreeVisitor(const TreeVisitor&) = default;
    TreeVisitor& operator=(const TreeVisitor&) = default;
    TreeVisitor(TreeVisitor&&) = default;
    TreeVisitor& operator=(TreeVisitor&&) = default;
};

/// One walk: no recursion, at most `maxHandles` open directories, and memory for the way down and
/// for the names of the directories beside it. Links are shown, never followed.
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
    /// which the start could not be opened or read; whether the visitor has stopped, it knows itself.
    int run(int at, const char* name, bool followLink, std::string shownAs, TreeVisitor& visitor);

    /// The directory that the visitor is told of; valid until it returns.
    int directory() const;

    /// The path of directory().
    const std::string& path() const { return m_path; }

private:
    // (to come)
};

} // namespace korvane::linux_platform
