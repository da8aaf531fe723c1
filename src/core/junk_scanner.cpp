// The scan of a category by directory walk, and of the whole catalog with signals.
#include "core/junk_scanner.h"

#include "core/byte_size.h"
#include "core/process_service.h"
#include "platform/file_walk.h"

#include <QDir>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <optional>

namespace korvane {

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
    return sizeBytes < 1 ? QStringLiteral("0 MB") : korvane::sizeDisplay(mebibytes(sizeBytes));
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

void JunkScanner::process()
{
    const QList<JunkCategory> catalog = knownJunkCategories();
    const auto total = static_cast<int>(catalog.size());
    QList<JunkItem> items;
    qint64 totalBytes = 0;
    int index = 0;
    for (const JunkCategory& category : catalog) {
        if (m_cancelRequested)
            break;
        Q_EMIT progress(category.name, ++index, total);
        JunkItem item = scanCategory(category, &m_cancelRequested);
        if (item.isEmpty())
            continue;
        totalBytes = sizeSum(totalBytes, item.sizeBytes);
        items.append(std::move(item));
    }
    if (m_cancelRequested) { // The last item may be a part.
        Q_EMIT cancelled();
        return;
    }
    std::sort(items.begin(), items.end(), [](const JunkItem& a, const JunkItem& b) {
        return a.group != b.group ? a.group < b.group : a.sizeBytes > b.sizeBytes;
    });
    Q_EMIT finished(items, totalBytes);
}

void JunkScanner::cancel()
{
    m_cancelRequested = true;
}

} // namespace korvane
