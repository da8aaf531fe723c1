// Walks directory trees by the system's listings, each read to its end before the next is opened.
#include "platform/file_walk.h"

#include "base/watchdog.h"
#include "platform/windows/files/local_path.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <QDir>

#include <string>
#include <vector>

namespace korvane {

using namespace Qt::StringLiterals;
using platform::EntryVisitor;
using windows_platform::extendedPath;
using windows_platform::fromWide;
using windows_platform::isLinkElsewhere;
using windows_platform::localPath;
using windows_platform::wide;

namespace {

using UniqueSearch = std::unique_ptr<void, windows_platform::CloseBy<FindClose>>;

/// A directory: how it is opened, and how it is shown.
struct Place
{
    std::wstring path;        ///< Extended, without a separator at its end.
    QString root;             ///< What the walk was given.
    std::size_t rootSize = 0; ///< How much of `path` that is.
};

/// The directory `root`, shown as that; none where it is not on this machine.
std::optional<Place> placeOf(const QString& root)
{
    const auto local = localPath(root);
    if (!local)
        return std::nullopt;
    Place place{extendedPath(*local).toStdWString(), root, 0};
    if (place.path.ends_with(L'\\'))
        place.path.pop_back();
    place.rootSize = place.path.size();
    return place;
}

/// The length of the file that a link leads to; 0 where that is not on this machine.
qint64 sizeBehind(const std::wstring& link)
{
    WIN32_FILE_ATTRIBUTE_DATA found{};
    const auto target = localPath(fromWide(link));
    if (!target ||
        GetFileAttributesExW(wide(extendedPath(*target)), GetFileExInfoStandard, &found) == FALSE)
        return 0;
    return static_cast<qint64>((quint64{found.nFileSizeHigh} << 32) | found.nFileSizeLow);
}

class FoundEntry final : public platform::WalkedEntry
{
public:
    FoundEntry(const Place& place, const WIN32_FIND_DATAW& found) : m_place(place), m_found(found)
    {
        m_isDirectory = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (m_isDirectory)
            m_size = 0;
        else if (isLink() && found.dwReserved0 != 0)
            m_size = sizeBehind(systemPath());
        else
            m_size = static_cast<qint64>((quint64{found.nFileSizeHigh} << 32) | found.nFileSizeLow);
    }

    QString name() const override { return fromWide(m_found.cFileName); }

    QString path() const override
    {
        const bool hasSeparator = m_place.root.endsWith(u'/') || m_place.root.endsWith(u'\\');
        return m_place.root + QDir::fromNativeSeparators(way().sliced(hasSeparator ? 1 : 0));
    }

    /// Other programs, and the framework, have the system parse a path, which takes dots and blanks from
    /// the ends of names and devices' names for devices.
    bool hasExactPath() const override
    {
        const QString plain = u"C:"_s + way();
        std::wstring parsed(static_cast<std::size_t>(plain.size()) + 1, L'\0');
        const DWORD size = GetFullPathNameW(wide(plain), static_cast<DWORD>(parsed.size()),
                                            parsed.data(), nullptr);
        return fromWide({parsed.data(), std::min<std::size_t>(size, parsed.size())}) == plain;
    }

    bool isLink() const { return isLinkElsewhere(m_found.dwFileAttributes, m_found.dwReserved0); }

    std::wstring systemPath() const { return m_place.path + L'\\' + m_found.cFileName; }

private:
    /// From the root on, beginning with a separator.
    QString way() const { return fromWide(systemPath()).sliced(qsizetype(m_place.rootSize)); }

    const Place& m_place;
    const WIN32_FIND_DATAW& m_found;
};

bool isDotOrDotDot(const wchar_t* name)
{
    return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

/// Calls `take` with each entry, until it returns false: then this does too.
template <typename Take> bool listDirectory(std::wstring& path, const Take& take)
{
    const std::size_t size = path.size();
    path += L"\\*";
    WIN32_FIND_DATAW found;
    const HANDLE opened =
        FindFirstFileExW(path.c_str(), FindExInfoBasic, &found, FindExSearchNameMatch, nullptr,
                         FIND_FIRST_EX_LARGE_FETCH);
    path.resize(size);
    if (opened == INVALID_HANDLE_VALUE)
        return true;
    const UniqueSearch search(opened);
    do {
        if (isDotOrDotDot(found.cFileName))
            continue;
        Watchdog::step();
        if (!take(found))
            return false;
    } while (FindNextFileW(search.get(), &found) != FALSE);
    return true;
}

/// Shows the files of a tree.
class FileLister
{
public:
    explicit FileLister(const EntryVisitor& visit) : m_visit(visit) {}

    /// False once the visitor has ended the walk.
    bool run(Place place)
    {
        m_place = std::move(place);
        m_pending.clear();
        m_pendingStarts.clear();
        m_levels.assign(1, {m_place.path.size(), 0});
        if (!showFiles())
            return false;
        while (!m_levels.empty()) {
            if (m_pendingStarts.size() == m_levels.back().namesBefore)
                m_levels.pop_back();
            else if (!descend())
                return false;
        }
        return true;
    }

private:
    struct Level
    {
        std::size_t pathSize;
        std::size_t namesBefore; ///< How many names were pending when it was entered.
    };

    /// Shows the files in the directory at hand, and keeps the names to descend into.
    bool showFiles()
    {
        return listDirectory(m_place.path, [this](const WIN32_FIND_DATAW& found) {
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
                return m_visit(FoundEntry(m_place, found));
            if (!isLinkElsewhere(found.dwFileAttributes, found.dwReserved0)) {
                m_pendingStarts.push_back(m_pending.size());
                m_pending += found.cFileName;
            }
            return true;
        });
    }

    bool descend()
    {
        const std::size_t start = m_pendingStarts.back();
        m_place.path.resize(m_levels.back().pathSize);
        m_place.path += L'\\';
        m_place.path.append(m_pending, start);
        m_pending.resize(start);
        m_pendingStarts.pop_back();
        m_levels.push_back({m_place.path.size(), m_pendingStarts.size()});
        Watchdog::step();
        return showFiles();
    }

    const EntryVisitor& m_visit;
    Place m_place;                            ///< The directory at hand.
    std::wstring m_pending;                   ///< Names of directories, one after the other.
    std::vector<std::size_t> m_pendingStarts; ///< Where each begins.
    std::vector<Level> m_levels;              ///< The directories that the one at hand lies in.
};

QString orCurrentDirectory(const QString& root)
{
    return root.isEmpty() ? u"."_s : root;
}

} // namespace

void platform::walkFiles(const QString& root, const EntryVisitor& visit)
{
    if (auto place = placeOf(orCurrentDirectory(root)))
        FileLister(visit).run(std::move(*place));
}

void platform::walkEntries(const QString& root, const EntryVisitor& visitEntry,
                           const EntryVisitor& visitFile)
{
    auto place = placeOf(orCurrentDirectory(root));
    if (!place)
        return;
    FileLister files(visitFile);
    std::wstring listed = place->path;
    listDirectory(listed, [&](const WIN32_FIND_DATAW& found) {
        const FoundEntry entry(*place, found);
        if (!visitEntry(entry))
            return false;
        if (!entry.isDirectory())
            return true;
        if (entry.isLink()) {
            auto target = placeOf(fromWide(entry.systemPath()));
            if (!target)
                return true;
            target->root = entry.path();
            return files.run(std::move(*target));
        }
        const std::wstring path = entry.systemPath();
        return files.run({path, entry.path(), path.size()});
    });
}

} // namespace korvane
