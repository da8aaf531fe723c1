// Copies directory trees.
#include "platform/linux/trash/tree_copy.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/files/tree_walk.h"
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/file_copy.h"
#include "platform/linux/trash/tree_removal.h"

#include <QByteArray>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

/// Makes the copy beside the walk, with one handle that goes down and up with it.
class TreeCopier final : public TreeVisitor
{
public:
    /// A file of several names gets one more in the directory `linksName` of `linksParent`, which
    /// is made for the first.
    TreeCopier(UniqueFd to, int linksParent, QByteArray linksName)
        : m_to(std::move(to)), m_linksParent(linksParent), m_linksName(std::move(linksName))
    {
    }

    bool hasLinks() const { return m_links.isValid(); }

    int error() const { return m_error; }

    Step entry(TreeWalk& walk, const TreeEntry& entry) override
    {
        const int error = copyEntry(walk.directory(), entry.name, m_to.get(), entry.name);
        return stepAfter(error, entry.type == DT_DIR ? Step::Descend : Step::GoOn);
    }

    Step entered(TreeWalk& walk) override
    {
        const std::string& path = walk.path();
        const std::string name = path.substr(path.rfind('/') + 1);
        return stepAfter(enter(walk.directory(), name.c_str()));
    }

    Step left(TreeWalk& walk, const char* name) override
    {
        if (const int error = finish(walk.directory(), name); error != 0)
            return stepAfter(error);
        m_to = UniqueFd(::openat(m_to.get(), "..", directoryFlags));
        return stepAfter(m_to.isValid() ? 0 : errno);
    }

    Step failed(TreeWalk&, int error) override
    {
        return stepAfter(error == EXDEV || error == ENOENT ? EBUSY : error);
    }

    // Each returns 0, or an errno.

    /// Copies what is no directory; of a directory, makes one that is empty.
    int copyEntry(int from, const char* name, int to, const char* copyName);

    /// Goes into the copy `copyName` of the directory that is open as `original`.
    int enter(int original, const char* copyName)
    {
        m_to = UniqueFd(::openat(m_to.get(), copyName, directoryFlags));
        m_originalDirectories.emplace_back();
        return m_to.isValid() && ::fstat(original, &m_originalDirectories.back()) == 0 ? 0 : errno;
    }

    /// Gives the current directory of the copy what the original `name` of `parent` has.
    int finish(int parent, const char* name)
    {
        const UniqueFd original(::openat(parent, name, directoryFlags));
        const struct stat info = m_originalDirectories.back();
        struct stat now = {};
        m_originalDirectories.pop_back();
        if (!original.isValid() || ::fstat(original.get(), &now) != 0 || !isSameFile(now, info))
            return EBUSY;
        return copyAttributes(original.get(), info, m_to.get());
    }

private:
    int makeLinks();

    Step stepAfter(int error, Step next = Step::GoOn)
    {
        m_error = error;
        return error == 0 ? next : Step::Stop;
    }

    UniqueFd m_to;
    int m_linksParent;
    QByteArray m_linksName;
    UniqueFd m_links;
    int m_error = 0;
    /// Those on the way down, as they were before.
    std::vector<struct stat> m_originalDirectories;
    std::vector<char> m_buffer;
};

int TreeCopier::copyEntry(int from, const char* name, int to, const char* copyName)
{
    struct stat info = {};
    if (::fstatat(from, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? EBUSY : errno;
    if (S_ISDIR(info.st_mode))
        return ::mkdirat(to, copyName, S_IRWXU) == 0 ? 0 : errno;
    if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode))
        return EBUSY;

    const bool hasNames = info.st_nlink > 1;
    if (const int error = hasNames ? makeLinks() : 0; error != 0)
        return error;
    // Subvolumes and the layers of an overlay number their files each by themselves.
    const QByteArray identity = QByteArray::number(static_cast<quint64>(info.st_dev)) + '-' +
                                QByteArray::number(static_cast<quint64>(info.st_ino));
    if (hasNames && ::linkat(m_links.get(), identity.constData(), to, copyName, 0) == 0)
        return 0;
    if (hasNames && errno != ENOENT)
        return errno;
    const int error = S_ISLNK(info.st_mode) ? copyLink(from, name, to, copyName)
                                            : copyFile(from, name, to, copyName, m_buffer);
    if (error != 0 || !hasNames)
        return error;
    return ::linkat(to, copyName, m_links.get(), identity.constData(), 0) == 0 ? 0 : errno;
}

int TreeCopier::makeLinks()
{
    if (!m_links.isValid() && ::mkdirat(m_linksParent, m_linksName.constData(), S_IRWXU) == 0)
        m_links = UniqueFd(::openat(m_linksParent, m_linksName.constData(), directoryFlags));
    return m_links.isValid() ? 0 : errno;
}

} // namespace

int copyTree(int parent, const char* name, int to, const char* copyName)
{
    const QByteArray linksName = QByteArray(copyName) + "-links";
    UniqueFd start(::openat(to, ".", directoryFlags));
    if (!start.isValid())
        return errno;

    TreeCopier copier(std::move(start), to, linksName);
    int error = copier.copyEntry(parent, name, to, copyName);
    const UniqueFd original(::openat(parent, name, directoryFlags));
    if (error == 0 && original.isValid()) {
        error = copier.enter(original.get(), copyName);
        if (error == 0)
            error = TreeWalk(TreeWalk::Mounts::Stay).run(parent, name, false, {}, copier);
        if (error == 0)
            error = copier.error();
        if (error == 0)
            error = copier.finish(parent, name);
    } else if (error == 0 && errno != ENOTDIR && errno != ELOOP) {
        error = errno;
    }
    const int removal = copier.hasLinks() ? removeTree(to, linksName.constData()) : 0;
    return error != 0 ? error : removal;
}

} // namespace korvane::linux_platform
