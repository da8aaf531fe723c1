// The tools that find the largest files and, once the user has agreed, make programs let go of one.
#include "tools/handlers.h"

#include "base/watchdog.h"
#include "core/file_unlock.h"
#include "core/large_files.h"
#include "core/local_paths.h"
#include "tools/tool_support.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QStandardPaths>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 defaultMinSize = 50LL * 1024 * 1024;
constexpr qint64 defaultMaxResults = 50;

QString labelOf(const ProcessInfo& locker)
{
    if (locker.appName.isEmpty())
        return u"PID %1"_s.arg(locker.pid);
    return u"%1 (PID %2)"_s.arg(consent::shownText(locker.appName), QString::number(locker.pid));
}

consent::Request unlockRequest(const QString& path, const QList<ProcessInfo>& lockers,
                               const QString& reason)
{
    QStringList labels;
    for (const ProcessInfo& locker : lockers)
        labels.append(labelOf(locker));
    return {
        .action = u"unlock_file"_s,
        .title = u"解锁文件"_s,
        .summary = u"AI 请求解锁文件「%1」"_s.arg(
            consent::quotedText(QFileInfo(QDir::cleanPath(path)).fileName())),
        .detail = u"路径: %1\n将关闭以下 %2 个占用进程的句柄:\n  - %3"_s.arg(
            consent::shownText(path), QString::number(lockers.size()), labels.join(u"\n  - "_s)),
        .reason = reason};
}

QJsonArray toArray(const QList<ProcessInfo>& lockers)
{
    QJsonArray objects;
    for (const ProcessInfo& locker : lockers) {
        objects.append(QJsonObject{{u"pid"_s, static_cast<qint64>(locker.pid)},
                                   {u"app_name"_s, locker.appName},
                                   {u"exe_path"_s, locker.exePath}});
    }
    return objects;
}

} // namespace

QJsonObject toolFindLargeFiles(const QJsonObject& args, const ProgressCallback& progress)
{
    const Watchdog::Work work;
    const QString root =
        args.value("root_path"_L1)
            .toString(QStandardPaths::writableLocation(QStandardPaths::HomeLocation));
    const qint64 given = integerArgument(args, "min_size_bytes"_L1);
    const qint64 minSize = given > 0 ? given : defaultMinSize;
    const qint64 maxResults = args.value("max_results"_L1).toInteger(defaultMaxResults);
    if (!isLocalDirectory(root))
        throwToolError(u"路径不存在: %1"_s.arg(root));

    LargeFileProgress report;
    if (progress) {
        report = [&progress](qint64 scanned, qint64 hits, const QString& path) {
            progress({{u"scanned_files"_s, scanned},
                      {u"current_hits"_s, hits},
                      {u"current_path"_s, path}});
        };
    }
    const LargeFiles found = findLargeFiles(root, minSize, maxResults, report);
    QJsonArray files;
    for (const LargeFile& file : found.files) {
        files.append(QJsonObject{{u"path"_s, file.path},
                                 {u"size_bytes"_s, file.bytes},
                                 {u"size_mb"_s, roundedMebibytes(file.bytes)}});
    }
    return {{u"scanned_files"_s, found.scanned},
            {u"hit_count"_s, files.size()},
            {u"root_path"_s, root},
            {u"min_size_bytes"_s, minSize},
            {u"files"_s, files}};
}

QJsonObject toolUnlockFile(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString given = trimmedArgument(args, "path"_L1);
    if (given.isEmpty())
        throwToolError(u"参数 path 不能为空"_s);
    if (!existsLocally(given))
        throwToolError(u"路径不存在: %1"_s.arg(given));

    const QString path = QDir::toNativeSeparators(QFileInfo(given).absoluteFilePath());
    FileUnlockService& service = Singleton<FileUnlockService>::instance();
    const LockerProbe probe = service.probeLockers({path});
    if (!probe.ok)
        throwToolError(probe.error);
    QJsonObject result{{u"unlocked"_s, true}, {u"path"_s, path}};
    if (probe.processes.isEmpty()) {
        result.insert(u"note"_s, u"该文件当前未被任何进程占用,无需解锁"_s);
        return result;
    }
    requireConsent(unlockRequest(path, probe.processes, textArgument(args, "reason"_L1)));
    const OpResult outcome = service.closeHandlesSync();
    if (!outcome.ok)
        throwToolError(outcome.message);
    result.insert(u"closed_processes"_s, toArray(probe.processes));
    result.insert(u"message"_s, outcome.message);
    return result;
}

} // namespace korvane
