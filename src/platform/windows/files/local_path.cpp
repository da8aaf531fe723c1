// Follows links by reading them, so that it is known where they lead before anything is opened.
#include "platform/windows/files/local_path.h"

#include "platform/windows/paths/drive_path.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <QDir>

#include <array>
#include <cstddef>
#include <cstring>

#include <winioctl.h>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr int maxLinks = 63; ///< As many as the system follows.
constexpr qsizetype rootSize = 3;

/// The head of what FSCTL_GET_REPARSE_POINT fills for links; texts follow it, after `flags` in a
/// symbolic link.
struct LinkHead
{
    quint32 tag;
    quint16 size;
    quint16 reserved;
    quint16 targetStart;
    quint16 targetSize;
    quint16 shownStart;
    quint16 shownSize;
};

bool isOnOwnDrive(const QString& path)
{
    const bool hasDrive = path.size() >= rootSize && path[1] == u':' && path[2] == u'\\';
    return hasDrive && GetDriveTypeW(wide(path.left(rootSize))) != DRIVE_REMOTE;
}

/// Where the link at `path` leads, in the link's own words; empty where that cannot be told.
QString readLink(const QString& path)
{
    const UniqueHandle link = owned(
        CreateFileW(wide(extendedPath(path)), FILE_READ_ATTRIBUTES,
                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                    FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    alignas(LinkHead) std::array<std::byte, MAXIMUM_REPARSE_DATA_BUFFER_SIZE> data{};
    DWORD filled = 0;
    if (link == nullptr || DeviceIoControl(link.get(), FSCTL_GET_REPARSE_POINT, nullptr, 0,
                                           data.data(), data.size(), &filled, nullptr) == FALSE)
        return {};
    LinkHead head{};
    std::memcpy(&head, data.data(), sizeof head);
    if (head.tag != IO_REPARSE_TAG_SYMLINK && head.tag != IO_REPARSE_TAG_MOUNT_POINT)
        return {};
    const std::size_t texts =
        sizeof head + (head.tag == IO_REPARSE_TAG_SYMLINK ? sizeof(quint32) : 0);
    const std::size_t start = texts + head.targetStart;
    if (start + head.targetSize > filled)
        return {};
    std::wstring target(head.targetSize / sizeof(wchar_t), L'\0');
    std::memcpy(target.data(), data.data() + start, target.size() * sizeof(wchar_t));
    return fromWide(target);
}

/// None where `path` is no link, or is the place of a mounted volume; else where it leads, as a path
/// that may be none of this machine's.
std::optional<QString> targetOf(const QString& path)
{
    constexpr QLatin1StringView systemPrefix(R"(\??\)");
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileExW(wide(extendedPath(path)), FindExInfoBasic, &found,
                                           FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return std::nullopt;
    FindClose(search);
    if (!isLinkElsewhere(found.dwFileAttributes, found.dwReserved0) || found.dwReserved0 == 0)
        return std::nullopt;
    const QString target = readLink(path);
    if (target.startsWith(systemPrefix + u"Volume{"_s) && target.endsWith(u"}\\"_s))
        return std::nullopt;
    if (target.startsWith(systemPrefix))
        return target.sliced(systemPrefix.size());
    const bool isRelative =
        !target.isEmpty() && !target.startsWith(u"\\\\"_s) && target.indexOf(u':') < 0;
    if (!isRelative)
        return target;
    const bool fromTheTop = target.startsWith(u'\\');
    return path.left(fromTheTop ? rootSize : path.lastIndexOf(u'\\') + 1) + target;
}

/// `path` with its first link replaced; false where it has none.
bool followFirstLink(QString& path)
{
    for (qsizetype end = rootSize - 1; end < path.size();) {
        end = path.indexOf(u'\\', end + 1);
        end = end < 0 ? path.size() : end;
        const auto target = end > rootSize ? targetOf(path.left(end)) : std::nullopt;
        if (target) {
            path = QDir::toNativeSeparators(QDir::cleanPath(*target + path.sliced(end)));
            return true;
        }
    }
    return false;
}

} // namespace

std::optional<QString> localPath(const QString& path)
{
    QString way = displayPath(path);
    if (way.size() == rootSize - 1 && way.endsWith(u':')) // not the directory that is current there
        way += u'\\';
    if (!isOnDrive(way))
        way = drivePath(way);
    way = QDir::toNativeSeparators(QDir::cleanPath(way));
    for (int followed = 0; followed <= maxLinks; ++followed) {
        if (!isOnOwnDrive(way))
            return std::nullopt;
        if (!followFirstLink(way))
            return way;
    }
    return std::nullopt;
}

bool isLinkElsewhere(unsigned long attributes, unsigned long tag)
{
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           (tag == 0 || IsReparseTagNameSurrogate(tag) != 0);
}

} // namespace korvane::windows_platform
