// Places by the path that the system gives their handles.
#include "platform/windows/recycle_bin/kept_places.h"

#include "platform/paths.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <string>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

/// The entry's own path, ended by a separator; empty where there is none, or it is elsewhere.
QString finalPath(const QString& path)
{
    if (path.isEmpty() || !platform::isLocalPath(path))
        return {};
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const UniqueHandle entry =
        owned(CreateFileW(wide(extendedPath(path)), 0, share, nullptr, OPEN_EXISTING,
                          FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    constexpr std::size_t longestPath = 32768;
    std::wstring buffer(longestPath, L'\0');
    const DWORD length =
        entry ? GetFinalPathNameByHandleW(entry.get(), buffer.data(), DWORD{longestPath}, 0) : 0;
    if (length == 0 || length >= longestPath)
        return {};
    const QString final = displayPath(fromWide({buffer.data(), length}));
    return final.endsWith(u'\\') ? final : final + u'\\';
}

bool isIn(const QString& place, const QString& directory)
{
    return !directory.isEmpty() && place.startsWith(directory, Qt::CaseInsensitive);
}

} // namespace

KeptPlaces::KeptPlaces()
    : m_temp(finalPath(QDir::tempPath())), m_current(finalPath(QDir::currentPath()))
{
    m_system = {finalPath(QDir::homePath())};
    for (const char* name : {"SystemRoot", "ProgramFiles", "ProgramFiles(x86)", "ProgramData",
                             "LOCALAPPDATA", "APPDATA"})
        m_system += finalPath(qEnvironmentVariable(name));
    m_system.removeAll(QString());
}

QString KeptPlaces::whyNothingIn(const QString& directory)
{
    m_directory = finalPath(directory);
    if (m_directory.isEmpty()) // What is not there holds nothing.
        return QFileInfo::exists(directory) ? u"无法读取"_s : QString();
    if (m_directory.contains(uR"(\$Recycle.Bin\)"_s, Qt::CaseInsensitive))
        return u"系统保留"_s;
    const bool holdsSystem =
        std::any_of(m_system.cbegin(), m_system.cend(),
                    [this](const QString& place) { return isIn(place, m_directory); });
    return m_directory == m_temp && holdsSystem ? u"临时目录为用户目录或其上级"_s : QString();
}

QString KeptPlaces::ownPath(const QString& entry) const
{
    WIN32_FIND_DATAW found{}; // has the long name where `entry` has the short one
    const HANDLE search = FindFirstFileExW(wide(extendedPath(entry)), FindExInfoBasic, &found,
                                           FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return m_directory + entry.sliced(entry.lastIndexOf(u'\\') + 1) + u'\\';
    FindClose(search);
    return m_directory + fromBuffer({found.cFileName, MAX_PATH}) + u'\\';
}

bool KeptPlaces::isLink(const QString& entry) const
{
    return finalPath(entry).compare(ownPath(entry), Qt::CaseInsensitive) != 0;
}

QString KeptPlaces::whyNot(const QString& entry) const
{
    const QString own = ownPath(entry);
    const bool holdsPlace = isIn(m_temp, own) || isIn(m_current, own) ||
                            std::any_of(m_system.cbegin(), m_system.cend(),
                                        [&own](const QString& place) { return isIn(place, own); });
    return holdsPlace ? u"系统保留"_s : QString();
}

} // namespace korvane::windows_platform
