// What the suites of Windows share, with what they include: Wine's ways, open files, links.
#pragma once

#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/system_library.h"
#include "platform/windows/sys/text.h"
#include "support/file_tree.h"
#include "support/mcp_client.h"
#include "support/table.h"

#include <QProcess>
#include <QTemporaryDir>

namespace korvane::test {

using windows_platform::UniqueHandle;
using windows_platform::wide;

/// Says what the system below Wine calls a path; null on Windows.
inline const auto toUnixName = windows_platform::systemFunction<char*(CDECL*)(const wchar_t*)>(
    L"kernel32.dll", "wine_get_unix_file_name");
inline const bool isWine = toUnixName != nullptr;

inline QString unixName(const QString& path)
{
    return QString::fromUtf8(toUnixName(wide(QDir::toNativeSeparators(path))));
}

/// Opens what is there; null where that is refused.
inline UniqueHandle open(const QString& path, DWORD access,
                         DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE)
{
    return windows_platform::owned(CreateFileW(wide(windows_platform::extendedPath(path)), access,
                                               share, nullptr, OPEN_EXISTING,
                                               FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

/// Makes a link; false where that is refused. Wine makes none of its own, but shows those of the
/// system below it, where they lead somewhere.
inline bool makeLink(const QString& link, const QString& target, bool toFolder)
{
    const QString folder = link.section(u'/', 0, -2);
    const DWORD flags = SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE | (toFolder ? 1U : 0U);
    if (!isWine)
        return CreateSymbolicLinkW(wide(windows_platform::extendedPath(link)),
                                   wide(QDir::toNativeSeparators(target)), flags) != 0;
    const QString place = unixName(folder) + u'/' + link.section(u'/', -1);
    return !target.startsWith(u'\\') &&
           QProcess::execute(u"start"_s, {u"/unix"_s, u"/bin/ln"_s, u"-s"_s, target, place}) >= 0 &&
           QTest::qWaitFor([&link] { return QFileInfo::exists(link); });
}

} // namespace korvane::test
