// Follows a path's drive and links by what they say, without going where they lead.
#include "platform/paths.h"

#include "platform/windows/paths/drive_path.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <winioctl.h>

#include <array>
#include <optional>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

/// How many links the system follows in one path.
constexpr int mostLinks = 63;

/// What stands for a drive's letter: a device's name, or the directory that "subst" named; empty where
/// there is no such drive.
QString drivesObject(const QString& drivePath)
{
    std::array<wchar_t, 4096> object{};
    const QString drive = drivePath.first(2);
    const DWORD length = QueryDosDeviceW(wide(drive), object.data(), DWORD{object.size()});
    return length == 0 ? QString() : fromBuffer({object.data(), object.size()});
}

/// The same path without the drive that "subst" made; itself on a drive of this machine; none on others.
std::optional<QString> onDevice(const QString& drivePath)
{
    const QString object = drivesObject(drivePath);
    if (object.startsWith(R"(\??\)"_L1)) {
        const QString place = pathOfObject(object);
        return place.isEmpty() ? std::nullopt : std::optional(place + drivePath.sliced(2));
    }
    // A redirector writes "\;" before the drive's letter: \Device\Mup\;Z:0123\host\share.
    if (object.isEmpty() || object.contains(R"(\;)"_L1))
        return std::nullopt;
    const UINT type = GetDriveTypeW(wide(drivePath.first(3)));
    return type == DRIVE_REMOTE ? std::nullopt : std::optional(drivePath);
}

/// The attributes of the entry itself; none where they cannot be read, 0 where nothing is there.
std::optional<DWORD> attributesOf(const QString& drivePath)
{
    const QString path = extendedPath(drivePath);
    const DWORD attributes = GetFileAttributesW(wide(path));
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return attributes;
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
        error == ERROR_INVALID_NAME || error == ERROR_NOT_READY)
        return 0;
    WIN32_FIND_DATAW found{}; // whoever may not ask for the entry may know its directory
    const HANDLE search =
        FindFirstFileExW(wide(path), FindExInfoBasic, &found, FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return std::nullopt;
    FindClose(search);
    return found.dwFileAttributes;
}

/// linkTarget() of what is there.
std::optional<QString> readLink(const QString& drivePath)
{
    const UniqueHandle link = owned(
        CreateFileW(wide(extendedPath(drivePath)), 0,
                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!link)
        return std::nullopt;
    QByteArray data(MAXIMUM_REPARSE_DATA_BUFFER_SIZE, '\0');
    DWORD size = 0;
    if (DeviceIoControl(link.get(), FSCTL_GET_REPARSE_POINT, nullptr, 0, data.data(),
                        static_cast<DWORD>(data.size()), &size, nullptr) == 0) {
        // Wine marks so what is a link only to the system below it.
        return GetLastError() == ERROR_NOT_A_REPARSE_POINT ? std::optional(drivePath)
                                                           : std::nullopt;
    }
    data.truncate(size);
    return linkTarget(data, drivePath);
}

/// The path after the first link in it was followed; itself where there is none, none where one leads
/// out or nobody can tell.
std::optional<QString> withoutFirstLink(const QString& drivePath)
{
    qsizetype end = 2;
    while (end < drivePath.size()) {
        end = drivePath.indexOf(u'\\', end + 1);
        end = end < 0 ? drivePath.size() : end;
        const QString entry = drivePath.first(end);
        if (entry.endsWith(u':') || entry.endsWith(u'\\'))
            continue;
        const auto attributes = attributesOf(entry);
        if (!attributes)
            return std::nullopt;
        if (*attributes == 0)
            return drivePath;
        if ((*attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0)
            continue;
        const auto target = readLink(entry);
        if (target != entry)
            return target ? std::optional(*target + drivePath.sliced(end)) : std::nullopt;
    }
    return drivePath;
}

} // namespace

} // namespace windows_platform

bool platform::isLocalPath(const QString& path)
{
    using namespace windows_platform;
    QString place = drivePath(path);
    for (int links = 0; links <= mostLinks && !place.isEmpty(); ++links) {
        auto next = onDevice(place);
        if (next == place)
            next = withoutFirstLink(place);
        if (next == place)
            return true;
        place = next ? drivePath(*next) : QString();
    }
    return false;
}

} // namespace korvane
