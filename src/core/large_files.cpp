// A walk that keeps the largest of what it meets.
#include "core/large_files.h"

#include "platform/file_walk.h"

#include <algorithm>
#include <utility>

namespace korvane {

namespace {

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
    explicit LargestFiles(qint64 wanted) : m_wanted(wanted) {}

    void add(qint64 size, QString path)
    {
        m_candidates.push_back({size, std::move(path)});
        if (this->size() - slack >= m_wanted)
            prune();
    }

    qint64 size() const { return static_cast<qint64>(m_candidates.size()); }

    /// Those asked for, the largest first.
    std::vector<LargeFile> takeSorted()
    {
        if (size() > m_wanted)
            prune();
        std::sort(m_candidates.begin(), m_candidates.end(), isLarger);
        return std::move(m_candidates);
    }

private:
    static constexpr qint64 slack = 200; ///< So that a selection is made once in so many files.

    static bool isLarger(const LargeFile& a, const LargeFile& b) { return a.bytes > b.bytes; }

    void prune()
    {
        const auto end = m_candidates.begin() + m_wanted;
        std::nth_element(m_candidates.begin(), end, m_candidates.end(), isLarger);
        m_candidates.erase(end, m_candidates.end());
    }

    qint64 m_wanted;
    std::vector<LargeFile> m_candidates;
};

} // namespace

LargeFiles findLargeFiles(const QString& root, qint64 minSize, qint64 wanted,
                          const LargeFileProgress& progress)
{
    LargestFiles largest(std::max<qint64>(wanted, 0));
    qint64 scanned = 0;
    platform::walkFiles(root, [&](const platform::WalkedEntry& file) {
        if (file.size() >= minSize)
            largest.add(file.size(), shownPath(file));
        ++scanned;
        if (progress && scanned % progressStep == 0)
            progress(scanned, largest.size(), shownPath(file));
        return true;
    });
    return {scanned, largest.takeSorted()};
}

} // namespace korvane
