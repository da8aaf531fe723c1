// A walk that opens what it meets.
#include "platform/windows/recycle_bin/examined_entry.h"

#include "base/byte_size.h"
#include "base/watchdog.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <QStringList>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

using Found = WIN32_FIND_DATAW;
using UniqueSearch = std::unique_ptr<void, CloseBy<FindClose>>;

/// The first entry that matches; null where there is none.
UniqueSearch findFirst(const QString& pattern, Found& found)
{
    const HANDLE search =
        FindFirstFileExW(wide(pattern), FindExInfoBasic, &found, FindExSearchNameMatch, nullptr,
                         FIND_FIRST_EX_LARGE_FETCH);
    return UniqueSearch(search == INVALID_HANDLE_VALUE ? nullptr : search);
}

bool isDirectory(const Found& found)
{
    return (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

/// Whether it stands for another entry. Wine's links have no tag.
bool isLink(const Found& found)
{
    const bool isNamed =
        found.dwReserved0 == 0 || IsReparseTagNameSurrogate(found.dwReserved0) != 0;
    return (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && isNamed;
}

DWORD tryToOpen(const QString& path, DWORD access)
{
    const UniqueHandle entry = owned(CreateFileW(
        wide(path), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_OPEN_NO_RECALL,
        nullptr));
    return entry ? ERROR_SUCCESS : GetLastError();
}

/// Adds up entries until one has to stay.
class Examination
{
public:
    /// `path` is an extendedPath().
    void take(const QString& path, const Found& found)
    {
        Watchdog::step();
        const bool isFile = !isDirectory(found);
        DWORD error = tryToOpen(path, isFile ? DELETE | FILE_WRITE_DATA : DELETE);
        if (isFile && error == ERROR_ACCESS_DENIED) // as of a read-only one
            error = tryToOpen(path, DELETE);
        if (error != ERROR_SUCCESS)
            return stop(error);
        if (!isFile && !isLink(found))
            m_directories.append(path);
        if (isFile && !isLink(found)) {
            constexpr int halfBits = 32;
            const quint64 size = quint64{found.nFileSizeHigh} << halfBits | found.nFileSizeLow;
            m_result.bytes = sizeSum(m_result.bytes, static_cast<qint64>(size));
        }
    }

    ExaminedEntry finish()
    {
        while (!m_directories.isEmpty() && !isStopped())
            takeAllIn(m_directories.takeLast() + u'\\');
        return std::move(m_result);
    }

    void stop(DWORD error)
    {
        m_result.keptBecause = keptBecauseOf(error);
        m_result.isGone = m_result.keptBecause.isEmpty();
    }

private:
    bool isStopped() const { return m_result.isGone || !m_result.keptBecause.isEmpty(); }

    void takeAllIn(const QString& directory)
    {
        Found found{};
        const UniqueSearch search = findFirst(directory + u'*', found);
        DWORD error = search ? ERROR_SUCCESS : GetLastError();
        while (error == ERROR_SUCCESS && !isStopped()) {
            const QString name = fromBuffer({found.cFileName, MAX_PATH});
            if (name != "."_L1 && name != ".."_L1)
                take(directory + name, found);
            if (FindNextFileW(search.get(), &found) == 0)
                error = GetLastError();
        }
        if (error != ERROR_SUCCESS && error != ERROR_NO_MORE_FILES && !isStopped())
            stop(error);
        if (m_result.isGone) // Whoever removes what is in it works on the whole.
            m_result = {.isGone = false, .keptBecause = u"正在使用"_s, .bytes = 0};
    }

    ExaminedEntry m_result;
    QStringList m_directories; ///< Still to be looked into.
};

} // namespace

ExaminedEntry examineEntry(const QString& path)
{
    Examination examination;
    const QString extended = extendedPath(path);
    Found found{};
    if (findFirst(extended, found))
        examination.take(extended, found);
    else
        examination.stop(GetLastError());
    return examination.finish();
}

QString keptBecauseOf(DWORD error)
{
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_DELETE_PENDING:
        return {};
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_USER_MAPPED_FILE:
        return u"正在使用"_s;
    case ERROR_ACCESS_DENIED:
        return u"无权限"_s;
    default:
        return u"移动失败: %1"_s.arg(errorText(error));
    }
}

} // namespace korvane::windows_platform
