// Removes directory trees, wholly or as far as there is a copy.
#include "platform/linux/trash/tree_removal.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/files/tree_walk.h"
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/file_hold.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

class Remover final : public TreeVisitor
{
public:
    Step entry(TreeWalk& walk, const TreeEntry& entry) override
    {
        if (entry.type == DT_DIR) {
            (void)::fchmodat(walk.directory(), entry.name, S_IRWXU, 0);
            return Step::Descend;
        }
        (void)::unlinkat(walk.directory(), entry.name, 0);
        return Step::GoOn;
    }

    Step left(TreeWalk& walk, const char* name) override
    {
        (void)::unlinkat(walk.directory(), name, AT_REMOVEDIR);
        return Step::GoOn;
    }
};

bool haveSameTarget(int directory, const char* name, int copyDirectory, const char* copyName)
{
    std::array<char, PATH_MAX> target{};
    std::array<char, PATH_MAX> copied{};
    const ssize_t size = ::readlinkat(directory, name, target.data(), target.size());
    return size >= 0 &&
           ::readlinkat(copyDirectory, copyName, copied.data(), copied.size()) == size &&
           std::memcmp(target.data(), copied.data(), static_cast<std::size_t>(size)) == 0;
}

/// Whether the two are directories, or files that hold the same. Tells what the first one is.
bool isCopied(int directory, const char* name, int copyDirectory, const char* copyName,
              struct stat& info)
{
    struct stat copy = {};
    if (::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::fstatat(copyDirectory, copyName, &copy, AT_SYMLINK_NOFOLLOW) != 0 ||
        (info.st_mode & S_IFMT) != (copy.st_mode & S_IFMT))
        return false;
    if (S_ISLNK(info.st_mode))
        return haveSameTarget(directory, name, copyDirectory, copyName);
    return S_ISDIR(info.st_mode) ||
           (info.st_size == copy.st_size && isSameTime(info.st_mtim, copy.st_mtim));
}

/// Goes through an original beside its copy.
class OriginalRemover final : public TreeVisitor
{
public:
    explicit OriginalRemover(UniqueFd copy) : m_copy(std::move(copy)) {}

    Step entry(TreeWalk& walk, const TreeEntry& entry) override
    {
        struct stat info = {};
        if (entry.type != DT_DIR)
            removeFile(walk.directory(), entry.name, m_copy.get(), entry.name);
        else if (isCopied(walk.directory(), entry.name, m_copy.get(), entry.name, info))
            return Step::Descend;
        return Step::GoOn;
    }

    Step entered(TreeWalk& walk) override
    {
        const std::string& path = walk.path();
        const std::string name = path.substr(path.rfind('/') + 1);
        m_copy = UniqueFd(::openat(m_copy.get(), name.c_str(), directoryFlags));
        makeWritable(walk.directory());
        return m_copy.isValid() ? Step::GoOn : Step::Stop;
    }

    Step left(TreeWalk& walk, const char* name) override
    {
        struct stat copy = {};
        const bool isKnown = ::fstat(m_copy.get(), &copy) == 0;
        if (!remove(walk.directory(), name, AT_REMOVEDIR) && isKnown) {
            const UniqueFd kept(::openat(walk.directory(), name, directoryFlags));
            (void)::fchmod(kept.get(), copy.st_mode & ALLPERMS);
        }
        m_copy = UniqueFd(::openat(m_copy.get(), "..", directoryFlags));
        return m_copy.isValid() ? Step::GoOn : Step::Stop;
    }

    /// Lets entries of the directory be removed.
    static void makeWritable(int directory)
    {
        struct stat info = {};
        if (::fstat(directory, &info) == 0 && (info.st_mode & S_IWUSR) == 0)
            (void)::fchmod(directory, (info.st_mode & ALLPERMS) | S_IWUSR);
    }

    /// Removes what is no directory, if it is what was copied.
    void removeFile(int directory, const char* name, int copyDirectory, const char* copyName)
    {
        struct stat info = {};
        if (!isCopied(directory, name, copyDirectory, copyName, info))
            return;
        if (S_ISLNK(info.st_mode)) {
            remove(directory, name, 0);
            return;
        }
        const FileHold hold(directory, name);
        // Again, as only from now on nobody writes to it.
        if (hold.error() == 0 && isCopied(directory, name, copyDirectory, copyName, info))
            remove(directory, name, 0);
        else if (m_result.error == 0 && hold.error() != ENOENT)
            m_result.error = hold.error();
    }

    bool remove(int directory, const char* name, int flags)
    {
        if (::unlinkat(directory, name, flags) == 0) {
            m_result.isUntouched = false;
            return true;
        }
        if (m_result.error == 0 && errno != ENOTEMPTY && errno != EEXIST && errno != ENOENT)
            m_result.error = errno;
        return false;
    }

    RemovedOriginal& result() { return m_result; }

private:
    UniqueFd m_copy; ///< The copy of walk.directory(); nobody else moves what is there.
    RemovedOriginal m_result;
};

} // namespace

int removeTree(int parent, const char* name)
{
    if (::unlinkat(parent, name, 0) == 0)
        return 0;
    if (errno != EISDIR && errno != EPERM)
        return errno;
    Remover remover;
    (void)::fchmodat(parent, name, S_IRWXU, 0);
    (void)TreeWalk(TreeWalk::Mounts::Stay).run(parent, name, false, {}, remover);
    return ::unlinkat(parent, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

RemovedOriginal removeOriginal(int parent, const char* name, int copyParent, const char* copyName)
{
    OriginalRemover remover(UniqueFd(::openat(copyParent, copyName, directoryFlags)));
    const UniqueFd original(::openat(parent, name, directoryFlags));
    struct stat info = {};
    if (!original.isValid()) {
        remover.removeFile(parent, name, copyParent, copyName);
    } else if (isCopied(parent, name, copyParent, copyName, info) &&
               ::fstat(original.get(), &info) == 0) {
        OriginalRemover::makeWritable(original.get());
        (void)TreeWalk(TreeWalk::Mounts::Stay).run(parent, name, false, {}, remover);
        if (!remover.remove(parent, name, AT_REMOVEDIR))
            (void)::fchmod(original.get(), info.st_mode & ALLPERMS);
    }
    remover.result().isGone = !hasEntry(parent, name);
    return remover.result();
}

} // namespace korvane::linux_platform
