// The volume's kind, and the settings that Explorer keeps.
#include "platform/windows/recycle_bin/bin_of_drive.h"

#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <array>

#include <shellapi.h>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

/// "X:\", or the directory in which the volume is mounted.
QString mountPoint(const QString& path)
{
    std::array<wchar_t, MAX_PATH + 1> root{};
    return GetVolumePathNameW(wide(path), root.data(), root.size()) == 0
               ? QString()
               : fromBuffer({root.data(), root.size()});
}

/// "{…}" of "\\?\Volume{…}\"; empty where it has none.
QString volumeId(const QString& mountPoint)
{
    std::array<wchar_t, 64> name{};
    if (GetVolumeNameForVolumeMountPointW(wide(mountPoint), name.data(), name.size()) == 0)
        return {};
    const QString volume = fromBuffer({name.data(), name.size()});
    return volume.sliced(volume.indexOf(u'{') < 0 ? volume.size() : volume.indexOf(u'{'))
        .chopped(volume.endsWith(u'\\') ? 1 : 0);
}

bool isSwitchedOff()
{
    const QString policies = uR"(Software\Microsoft\Windows\CurrentVersion\Policies\Explorer)"_s;
    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
        if (RegistryKey(root, policies).number(u"NoRecycleFiles"_s).value_or(0) != 0)
            return true;
    }
    return false;
}

} // namespace

QString whyBinCannotTake(const QString& path, qint64 bytes)
{
    const QString root = mountPoint(path);
    if (root.isEmpty() || GetDriveTypeW(wide(root)) != DRIVE_FIXED)
        return u"所在磁盘没有回收站"_s;
    const RegistryKey settings(
        HKEY_CURRENT_USER,
        uR"(Software\Microsoft\Windows\CurrentVersion\Explorer\BitBucket\Volume\)"_s +
            volumeId(root));
    if (isSwitchedOff() || settings.number(u"NukeOnDelete"_s).value_or(0) != 0)
        return u"回收站已停用"_s;
    constexpr qint64 mebibyte = qint64{1024} * 1024;
    const auto capacity = settings.number(u"MaxCapacity"_s);
    return capacity && bytes > *capacity * mebibyte ? u"超过回收站容量"_s : QString();
}

bool isBinThere(const QString& path)
{
    SHQUERYRBINFO info{};
    info.cbSize = sizeof(info);
    return SUCCEEDED(SHQueryRecycleBinW(wide(mountPoint(path)), &info));
}

} // namespace korvane::windows_platform
