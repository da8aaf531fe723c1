// The tool that finds the largest files below a directory.
#include "tools/handlers.h"

#include "base/watchdog.h"
#include "platform/file_walk.h"
#include "tools/tool_support.h"

#include <QDir>
#include <QJsonArray>
#include <QStandardPaths>

#include <algorithm>
#include <utility>
#include <vector>

namespace korvane {

namespace {

constexpr qint64 defaultMinSize = 50LL * 1024 * 1024;
constexpr qint64 defaultMaxResults = 50;

/// Progress is told after each so many files.
constexpr qint64 progressStep = 500;

QString shownPath(const platform::WalkedEntry& file)
{
    return file.path().replace(u'\\', u'/');
}

/// The largest files of those added, as many as asked for, and at times up to 199 more.
class LargestFiles
{
public:
    using Candidate = std::pair<qint64, QString>; ///< Size in bytes, and path.

    explicit LargestFiles(qint64 wanted) : m_wanted(wanted) {}

    void add(qint64 size, QString path)
    {
        m_candidates.emplace_back(size, std::move(path));
        if (this->size() - slack >= m_wanted)
            prune();
    }

    qint64 size() const { return static_cast<qint64>(m_candidates.size()); }

    /// Those asked for, the largest first.
    std::vector<Candidate> takeSorted()
    {
        if (size() > m_wanted)
            prune();
        std::sort(m_candidates.begin(), m_candidates.end(), isLarger);
        return std::move(m_candidates);
    }

private:
    static constexpr qint64 slack = 200; ///< So that a selection is made once in so many files.

    static bool isLarger(const Candidate& a, const Candidate& b) { return a.first > b.first; }

    void prune()
    {
        const auto end = m_candidates.begin() + m_wanted;
        std::nth_element(m_candidates.begin(), end, m_candidates.end(), isLarger);
        m_candidates.erase(end, m_candidates.end());
    }

    qint64 m_wanted;
    std::vector<Candidate> m_candidates;
};

} // namespace

QJsonObject toolFindLargeFiles(const QJsonObject& args, const ProgressCallback& progress)
{
    const Watchdog::Work work;
    const QString root =
        args.value(QLatin1String("root_path"))
            .toString(QStandardPaths::writableLocation(QStandardPaths::HomeLocation));
    const qint64 given = integerArgument(args, QLatin1String("min_size_bytes"));
    const qint64 minSize = given > 0 ? given : defaultMinSize;
    const qint64 maxResults = args.value(QLatin1String("max_results")).toInteger(defaultMaxResults);
    if (!QDir(root).exists())
        throwToolError(QStringLiteral("路径不存在: %1").arg(root));

    LargestFiles largest(std::max<qint64>(maxResults, 0));
    qint64 scanned = 0;
    platform::walkFiles(root, [&](const platform::WalkedEntry& file) {
        if (file.size() >= minSize)
            largest.add(file.size(), shownPath(file));
        ++scanned;
        if (progress && scanned % progressStep == 0) {
            progress({{QStringLiteral("scanned_files"), scanned},
                      {QStringLiteral("current_hits"), largest.size()},
                      {QStringLiteral("current_path"), shownPath(file)}});
        }
        return true;
    });

    QJsonArray files;
    for (const auto& [size, path] : largest.takeSorted()) {
        files.append(QJsonObject{{QStringLiteral("path"), path},
                                 {QStringLiteral("size_bytes"), size},
                                 {QStringLiteral("size_mb"), roundedMebibytes(size)}});
    }
    return {{QStringLiteral("scanned_files"), scanned},
            {QStringLiteral("hit_count"), files.size()},
            {QStringLiteral("root_path"), root},
            {QStringLiteral("min_size_bytes"), minSize},
            {QStringLiteral("files"), files}};
}

} // namespace korvane
