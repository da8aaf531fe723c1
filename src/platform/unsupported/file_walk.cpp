// Walks directory trees with what the framework offers.
#include "platform/file_walk.h"

#include "base/watchdog.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

constexpr QDir::Filters fileFilters =
    QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

class FoundEntry final : public platform::WalkedEntry
{
public:
    explicit FoundEntry(const QFileInfo& info) : m_info(info)
    {
        m_isDirectory = info.isDir();
        m_size = m_isDirectory ? 0 : info.size();
    }

    QString name() const override { return m_info.fileName(); }
    QString path() const override { return m_info.filePath(); }
    bool hasExactPath() const override { return true; }

private:
    const QFileInfo& m_info;
};

/// Whether the walk goes on.
bool showAll(QDirIterator& found, const platform::EntryVisitor& visit)
{
    while (found.hasNext()) {
        Watchdog::step();
        found.next();
        if (!visit(FoundEntry(found.fileInfo())))
            return false;
    }
    return true;
}

bool walk(const QString& root, const platform::EntryVisitor& visit)
{
    QDirIterator files(root, fileFilters, QDirIterator::Subdirectories);
    return showAll(files, visit);
}

QString orCurrentDirectory(const QString& root)
{
    return root.isEmpty() ? u"."_s : root;
}

} // namespace

void platform::walkFiles(const QString& root, const EntryVisitor& visit)
{
    walk(orCurrentDirectory(root), visit);
}

void platform::walkEntries(const QString& root, const EntryVisitor& visitEntry,
                           const EntryVisitor& visitFile)
{
    QDirIterator entries(orCurrentDirectory(root), fileFilters | QDir::Dirs);
    showAll(entries, [&](const WalkedEntry& entry) {
        return visitEntry(entry) && (!entry.isDirectory() || walk(entry.path(), visitFile));
    });
}

} // namespace korvane
