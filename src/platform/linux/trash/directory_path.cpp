// Goes along a path by handles: what was judged is what is opened.
#include "platform/linux/trash/directory_path.h"

#include "platform/linux/sys/text.h"

#include <QList>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

constexpr int entryFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr int linksLimit = 40; // the kernel's own

/// Whether this program can do more than one user: the root of a namespace with a single user has no
/// rights but that user's.
bool isRootAmongOthers()
{
    if (::geteuid() != 0)
        return false;
    const auto map = readSystemFile("/proc/self/uid_map", 4096); // "FIRST FIRST_OUTSIDE COUNT"
    QByteArrayView first = map ? QByteArrayView(*map) : QByteArrayView();
    QByteArrayView line = takeUntil(first, '\n');
    takeWord(line);
    takeWord(line);
    return takeWord(line) != "1" || !first.isEmpty();
}

bool isFuse(int directory)
{
    struct statfs info = {};
    return ::fstatfs(directory, &info) != 0 || info.f_type == FUSE_SUPER_MAGIC;
}

/// One path under way.
class PathWalk
{
public:
    explicit PathWalk(MissingDirectories missing) : m_missing(missing) {}

    OrErrno<DirectoryAtPath> run(const QByteArray& path)
    {
        int error = goBy(path);
        while (error == 0 && !m_rest.isEmpty()) {
            const QByteArray name = m_rest.takeFirst();
            if (!name.isEmpty() && name != ".")
                error = step(name);
        }
        if (error != 0)
            return error;
        return DirectoryAtPath{std::move(m_handle), m_path.isEmpty() ? "/" : m_path};
    }

private:
    // Each returns 0, or an errno.

    /// Puts `path` before what is left of the way.
    int goBy(const QByteArray& path)
    {
        m_rest = path.split('/') + m_rest;
        if (!path.startsWith('/'))
            return 0;
        m_path.clear();
        return enter(UniqueFd(::open("/", entryFlags | O_DIRECTORY)));
    }

    int step(const QByteArray& name)
    {
        const auto open = [&] {
            return UniqueFd(::openat(m_handle.get(), name.constData(), entryFlags | O_DIRECTORY));
        };
        UniqueFd next = open();
        if (!next.isValid() && errno == ENOENT && m_missing == MissingDirectories::Make &&
            (::mkdirat(m_handle.get(), name.constData(), S_IRWXU) == 0 || errno == EEXIST))
            next = open();
        if (!next.isValid())
            return errno == ENOTDIR ? follow(name) : errno;
        if (name == "..")
            m_path.truncate(std::max(m_path.lastIndexOf('/'), qsizetype{0}));
        else
            m_path += '/' + name;
        return enter(std::move(next));
    }

    int follow(const QByteArray& name)
    {
        const UniqueFd link(::openat(m_handle.get(), name.constData(), entryFlags));
        struct stat info = {};
        if (!link.isValid() || ::fstat(link.get(), &info) != 0)
            return errno;
        if (!S_ISLNK(info.st_mode))
            return ENOTDIR;
        if (m_isRoot && (info.st_uid != 0 || m_isShared))
            return EPERM;
        std::array<char, PATH_MAX> target{};
        const ssize_t size = ::readlinkat(link.get(), "", target.data(), target.size());
        if (size <= 0 || ++m_links > linksLimit)
            return size < 0 ? errno : ELOOP;
        return goBy(QByteArray(target.data(), size));
    }

    /// Goes into a directory, unless root should not.
    int enter(UniqueFd directory)
    {
        m_handle = std::move(directory);
        struct stat info = {};
        if (!m_handle.isValid() || ::fstat(m_handle.get(), &info) != 0)
            return errno;
        m_isShared = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0; // a list of rights shows there too
        if (m_path.isEmpty())
            m_rootDevice = info.st_dev;
        if (!m_isRoot)
            return 0;
        // Whoever serves a FUSE file system says whose its files are.
        const bool isOthers = info.st_uid != 0 || (m_isShared && (info.st_mode & S_ISVTX) == 0) ||
                              (info.st_dev != m_rootDevice && isFuse(m_handle.get()));
        return isOthers ? EPERM : 0;
    }

    const bool m_isRoot = isRootAmongOthers();
    MissingDirectories m_missing;
    UniqueFd m_handle;
    QByteArray m_path; ///< Of m_handle; empty for the root directory.
    QList<QByteArray> m_rest;
    dev_t m_rootDevice = 0;
    bool m_isShared = false; ///< Whether others may write to m_handle.
    int m_links = 0;
};

} // namespace

OrErrno<DirectoryAtPath> openDirectoryAt(const QByteArray& path, MissingDirectories missing)
{
    return PathWalk(missing).run(path);
}

} // namespace korvane::linux_platform
