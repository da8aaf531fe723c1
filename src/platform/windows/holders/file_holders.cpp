// Finds and closes other processes' handles on files.
#include "platform/file_holders.h"

#include "platform/windows/files/local_path.h"
#include "platform/windows/holders/debug_privilege.h"
#include "platform/windows/holders/holder_probe.h"
#include "platform/windows/holders/limited_questions.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/text.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

namespace korvane {

using namespace Qt::StringLiterals;
using platform::HeldFile;
using windows_platform::Holders;
using windows_platform::UniqueHandle;

namespace {

constexpr quint32 systemPid = 4;

QString unseenText(std::size_t count)
{
    return u"有 %1 个进程或句柄无法查看;以管理员身份运行时能查看更多"_s.arg(count);
}

/// Whether the handle is still open on the file that it was found on.
bool isStillThat(const std::shared_ptr<void>& process, const HeldFile& held)
{
    const auto ask = [process, handle = held.handle](std::size_t) {
        return windows_platform::describeIn(process.get(), handle,
                                            windows_platform::Detail::Identity);
    };
    const auto answers =
        windows_platform::askWithLimit({{held.pid, held.startTime, held.handle}}, ask);
    return answers.files[0] && windows_platform::identityOf(*answers.files[0]) == held.file;
}

QString noHandleText()
{
    return u"没有可关闭的句柄(文件可能已载入其内存)"_s;
}

/// Why the handle may not be closed; empty once it is closed, or was already. Counts those it closed.
QString closeOne(const HeldFile& held, int& closed)
{
    if (held.handle == 0)
        return noHandleText();
    if (held.pid == GetCurrentProcessId())
        return u"是本程序自己"_s;
    const std::shared_ptr<void> process = windows_platform::openProcess(
        held.pid, PROCESS_DUP_HANDLE | PROCESS_QUERY_LIMITED_INFORMATION);
    if (process == nullptr) {
        const DWORD reason = GetLastError();
        return reason == ERROR_INVALID_PARAMETER ? QString() : windows_platform::errorText(reason);
    }
    if (windows_platform::creationTime(process.get()) != held.startTime)
        return {};
    if (held.pid <= systemPid || windows_platform::isCritical(process.get()))
        return u"是系统关键进程,不关闭其句柄"_s;
    if (!isStillThat(process, held))
        return {};
    // Moved to this process, where it is closed: Wine takes no target of none, as Windows does.
    HANDLE moved = nullptr;
    if (DuplicateHandle(process.get(), windows_platform::asHandle(held.handle), GetCurrentProcess(),
                        &moved, 0, FALSE, DUPLICATE_CLOSE_SOURCE | DUPLICATE_SAME_ACCESS) == FALSE)
        return windows_platform::lastErrorText();
    const UniqueHandle owner(moved);
    ++closed;
    return {};
}

QString labelOf(const ProcessInfo& process)
{
    return process.appName.isEmpty()
               ? u"PID %1"_s.arg(process.pid)
               : u"%1 (PID %2)"_s.arg(process.appName, QString::number(process.pid));
}

/// Who holds the files now, although all was done, and why.
QString remaining(const Holders& now, const QMap<quint32, QString>& reasons)
{
    QMap<quint32, QString> labels;
    for (const HeldFile& held : now.held) {
        const QString found = held.handle == 0 ? noHandleText() : u"已重新打开"_s;
        const QString label = labelOf(now.processes.value(held.pid));
        labels.insert(held.pid, u"%1: %2"_s.arg(label, reasons.value(held.pid, found)));
    }
    return labels.values().join(u"; "_s);
}

/// Why the path cannot be deleted at the restart; empty once that is noted.
QString scheduleOne(const QString& path)
{
    const QFileInfo entry(QDir::cleanPath(windows_platform::displayPath(path)));
    const auto folder = windows_platform::localPath(entry.path()); // a link is deleted itself
    if (!folder)
        return u"只能是本机磁盘上的路径"_s;
    const QString extended = windows_platform::extendedPath(*folder + u'\\' + entry.fileName());
    const DWORD attributes = GetFileAttributesW(windows_platform::wide(extended));
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return windows_platform::lastErrorText();
    const bool isFolder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
                          (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
    if (isFolder && !QDir(extended).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System |
                                            QDir::NoDotAndDotDot))
        return u"文件夹不为空,系统重启时不会删除"_s;
    if (MoveFileExW(windows_platform::wide(extended), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT) !=
        FALSE)
        return {};
    const DWORD reason = GetLastError();
    return reason == ERROR_ACCESS_DENIED ? u"需要管理员权限"_s
                                         : windows_platform::errorText(reason);
}

} // namespace

LockerProbe platform::findFileHolders(const QList<QString>& paths, QList<HeldFile>& held)
{
    const Holders found = windows_platform::findHolders(paths);
    held = found.held;
    if (!found.error.isEmpty() && found.held.isEmpty())
        return {false, found.error, {}};
    if (found.unseen > 0 && found.held.isEmpty())
        return {false, u"未发现占用的进程,但"_s + unseenText(found.unseen), {}};
    return {true, {}, found.processes.values()};
}

OpResult platform::closeHeldFiles(const QList<HeldFile>& held)
{
    QMap<quint32, QString> reasons;
    QSet<QString> paths;
    int closed = 0;
    {
        const windows_platform::DebugPrivilege privilege;
        for (const HeldFile& file : held) {
            const QString reason = closeOne(file, closed);
            if (!reason.isEmpty())
                reasons.insert(file.pid, reason);
            paths.insert(file.path);
        }
    }
    const Holders now = windows_platform::findHolders(paths.values());
    if (!now.held.isEmpty())
        return {false, u"仍被占用: "_s + remaining(now, reasons)};
    if (!now.error.isEmpty())
        return {false,
                u"已关闭 %1 个句柄,但无法确认: %2"_s.arg(QString::number(closed), now.error)};
    const QString note = now.unseen > 0 ? u"("_s + unseenText(now.unseen) + u")"_s : QString();
    return {true, u"已关闭 %1 个句柄%2"_s.arg(QString::number(closed), note)};
}

OpResult platform::scheduleDeleteOnReboot(const QList<QString>& paths)
{
    QStringList refused;
    for (const QString& path : paths) {
        const QString reason = scheduleOne(path);
        if (!reason.isEmpty())
            refused.append(u"%1: %2"_s.arg(path, reason));
    }
    if (!refused.isEmpty())
        return {false, u"无法安排在重启时删除: "_s + refused.join(u"; "_s)};
    return {true, u"已安排 %1 个路径在重启时删除"_s.arg(paths.size())};
}

} // namespace korvane
