// Walks directory trees through handles.
#include "platform/file_walk.h"

#include "platform/linux/files/tree_walk.h"
#include "platform/linux/sys/text.h"

#include <QFile>

#include <cerrno>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace korvane {

using linux_platform::textFromSystem;
using linux_platform::TreeEntry;
using linux_platform::TreeVisitor;
using linux_platform::TreeWalk;

namespace {

class FoundEntry final : public platform::WalkedEntry
{
public:
    FoundEntry(const TreeWalk& walk, const TreeEntry& entry, const struct stat& info)
        : m_walk(walk), m_entry(entry)
    {
        m_isDirectory = S_ISDIR(info.st_mode);
        m_size = m_isDirectory ? 0 : info.st_size;
    }

    QString name() const override { return textFromSystem(m_entry.name); }
    QString path() const override { return textFromSystem(m_walk.pathOf(m_entry.name)); }
    bool hasExactPath() const override
    {
        return QUtf8StringView(m_walk.pathOf(m_entry.name)).isValidUtf8();
    }

private:
    const TreeWalk& m_walk;
    const TreeEntry& m_entry;
};

/// Tells in `info` what the entry is, and where it is a link what it leads to: nothing but the type
/// where that may not be known. False when it has vanished.
bool readStatus(TreeWalk& walk, const TreeEntry& entry, struct stat& info)
{
    const bool isLink = entry.type == DT_LNK;
    if (::fstatat(walk.directory(), entry.name, &info, isLink ? 0 : AT_SYMLINK_NOFOLLOW) == 0)
        return true;
    if (errno == ENOENT && !isLink)
        return false;
    info = {};
    info.st_mode = DTTOIF(entry.type);
    return true;
}

/// Shows the files of a tree.
class FileLister final : public TreeVisitor
{
public:
    explicit FileLister(const platform::EntryVisitor& visit) : m_visit(visit) {}

    Step entry(TreeWalk& walk, const TreeEntry& entry) override
    {
        if (entry.type == DT_DIR)
            return Step::Descend;
        if (!readStatus(walk, entry, m_status) || S_ISDIR(m_status.st_mode))
            return Step::GoOn;
        m_isStopped = !m_visit(FoundEntry(walk, entry, m_status));
        return m_isStopped ? Step::Stop : Step::GoOn;
    }

    bool isStopped() const { return m_isStopped; }

private:
    const platform::EntryVisitor& m_visit;
    struct stat m_status = {}; ///< Of the entry at hand; here, so that it is cleared but once.
    bool m_isStopped = false;
};

/// Shows the entries of one directory, and the files below each.
class EntryLister final : public TreeVisitor
{
public:
    EntryLister(const platform::EntryVisitor& visitEntry, const platform::EntryVisitor& visitFile)
        : m_visitEntry(visitEntry), m_files(visitFile)
    {
    }

    Step entry(TreeWalk& walk, const TreeEntry& entry) override
    {
        struct stat status = {};
        if (!readStatus(walk, entry, status))
            return Step::GoOn;
        if (!m_visitEntry(FoundEntry(walk, entry, status)))
            return Step::Stop;
        if (S_ISDIR(status.st_mode))
            m_below.run(walk.directory(), entry.name, true, walk.pathOf(entry.name), m_files);
        return m_files.isStopped() ? Step::Stop : Step::GoOn;
    }

private:
    const platform::EntryVisitor& m_visitEntry;
    FileLister m_files;
    TreeWalk m_below{TreeWalk::Mounts::SkipKernelMade};
};

void walk(const QString& root, TreeVisitor& visitor)
{
    const QByteArray path = root.isEmpty() ? QByteArray(".") : QFile::encodeName(root);
    TreeWalk(TreeWalk::Mounts::SkipKernelMade)
        .run(AT_FDCWD, path.constData(), true, path.toStdString(), visitor);
}

} // namespace

void platform::walkFiles(const QString& root, const EntryVisitor& visit)
{
    FileLister lister(visit);
    walk(root, lister);
}

void platform::walkEntries(const QString& root, const EntryVisitor& visitEntry,
                           const EntryVisitor& visitFile)
{
    EntryLister lister(visitEntry, visitFile);
    walk(root, lister);
}

} // namespace korvane
