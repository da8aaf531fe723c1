// The scan of a category by directory walk, and of the whole catalog with signals.
#include "core/junk_scanner.h"

#include "base/byte_size.h"
#include "core/processes.h"
#include "platform/file_walk.h"
#include "platform/recycle_bin.h"

#include <QDir>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <optional>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

/// The entry's path with "/" as separator; none when that would name something else, as where a
/// backslash is part of a name: whatever is listed gets moved.
std::optional<QString> movablePath(const platform::WalkedEntry& entry)
{
    if (!entry.hasExactPath())
        return std::nullopt;
    QString path = QDir::fromNativeSeparators(entry.path());
    if (path.contains(u'\\'))
        return std::nullopt;
    return path;
}

/// One scan of a category's roots.
class CategoryScan
{
public:
    CategoryScan(const JunkCategory& category, const std::atomic<bool>* cancel)
        : m_item{.id = category.id,
                 .name = category.name,
                 .description = category.description,
                 .group = category.group,
                 .safety = category.safety,
                 .paths = {},
                 .guardProcesses = category.guardProcesses},
          m_cancel(cancel)
    {
        for (const QString& pattern : category.patterns) {
            m_patterns.emplaceBack(QRegularExpression::wildcardToRegularExpression(pattern),
                                   QRegularExpression::CaseInsensitiveOption);
        }
    }

    void scan(const QString& root)
    {
        if (!QFileInfo(root).isDir())
            return;
        if (m_patterns.isEmpty())
            takeEverything(QDir(root).absolutePath());
        else
            takeMatches(root);
    }

    JunkItem take() { return std::move(m_item); }

private:
    bool isCancelled() const { return m_cancel != nullptr && *m_cancel; }

    void count(const platform::WalkedEntry& file)
    {
        m_item.sizeBytes = sizeSum(m_item.sizeBytes, file.size());
        ++m_item.fileCount;
    }

    void list(const platform::WalkedEntry& entry)
    {
        if (const auto path = movablePath(entry))
            m_item.paths.append(*path);
    }

    void takeEverything(const QString& root)
    {
        const auto takeEntry = [this](const platform::WalkedEntry& entry) {
            if (isCancelled())
                return false;
            list(entry);
            if (!entry.isDirectory())
                count(entry);
            return true;
        };
        const auto takeFile = [this](const platform::WalkedEntry& file) {
            if (isCancelled())
                return false;
            count(file);
            return true;
        };
        platform::walkEntries(root, takeEntry, takeFile);
    }

    void takeMatches(const QString& root)
    {
        platform::walkFiles(root, [this](const platform::WalkedEntry& file) {
            if (isCancelled())
                return false;
            const QString name = file.name();
            const auto matches = [&name](const QRegularExpression& pattern) {
                return pattern.match(name).hasMatch();
            };
            if (std::any_of(m_patterns.cbegin(), m_patterns.cend(), matches)) {
                list(file);
                count(file);
            }
            return true;
        });
    }

    JunkItem m_item;
    QList<QRegularExpression> m_patterns;
    const std::atomic<bool>* m_cancel;
};

} // namespace

QString JunkItem::sizeDisplay() const
{
    return sizeBytes < 1 ? u"0 MB"_s : korvane::sizeDisplay(mebibytes(sizeBytes));
}

JunkScanner::JunkScanner(QObject* parent) : QObject(parent)
{
    qRegisterMetaType<JunkItem>();
    qRegisterMetaType<QList<JunkItem>>();
}

JunkItem JunkScanner::scanCategory(const JunkCategory& category, const std::atomic<bool>* cancel)
{
    CategoryScan scan(category, cancel);
    for (const QString& root : category.roots)
        scan.scan(root);
    return scan.take();
}

QStringList JunkScanner::runningGuardProcesses(const QStringList& names)
{
    if (names.isEmpty())
        return {};
    QSet<QString> running;
    const auto processes = Singleton<ProcessService>::instance().listAllProcesses();
    for (const ProcessSnapshot& process : processes)
        running.insert(process.name.toLower());
    QStringList guards = names;
    guards.removeIf([&running](const QString& name) { return !running.contains(name.toLower()); });
    return guards;
}

QList<JunkItem> JunkScanner::scanCatalog(const CategoryFilter& isWanted,
                                         const std::atomic<bool>* cancel)
{
    const QList<JunkCategory> catalog = knownJunkCategories();
    QList<JunkItem> items;
    int index = 0;
    for (const JunkCategory& category : catalog) {
        if (!isWanted(category, ++index, static_cast<int>(catalog.size())))
            continue;
        JunkItem item = scanCategory(category, cancel);
        if (!item.isEmpty())
            items.append(std::move(item));
    }
    return items;
}

OpResult JunkScanner::moveToRecycleBin(const QStringList& paths)
{
    return platform::moveToRecycleBin(paths);
}

void JunkScanner::process()
{
    const auto announce = [this](const JunkCategory& category, int index, int total) {
        if (!m_cancelRequested)
            Q_EMIT progress(category.name, index, total);
        return !m_cancelRequested;
    };
    QList<JunkItem> items = scanCatalog(announce, &m_cancelRequested);
    if (m_cancelRequested) { // The last item may be a part.
        Q_EMIT cancelled();
        return;
    }
    std::sort(items.begin(), items.end(), [](const JunkItem& a, const JunkItem& b) {
        return a.group != b.group ? a.group < b.group : a.sizeBytes > b.sizeBytes;
    });
    qint64 totalBytes = 0;
    for (const JunkItem& item : std::as_const(items))
        totalBytes = sizeSum(totalBytes, item.sizeBytes);
    Q_EMIT finished(items, totalBytes);
}

void JunkScanner::cancel()
{
    m_cancelRequested = true;
}

} // namespace korvane
