// The tools that find the largest files and, once the user has agreed, make programs let go of one.
#include "tools/handlers.h"

#include "base/watchdog.h"
#include "core/file_unlock.h"
#include "core/large_files.h"
#include "tools/tool_support.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QStandardPaths>

namespace korvane {

namespace {

constexpr qint64 defaultMinSize = 50LL * 1024 * 1024;
constexpr qint64 defaultMaxResults = 50;

QString labelOf(const ProcessInfo& locker)
{
    if (locker.appName.isEmpty())
        return QStringLiteral("PID %1").arg(locker.pid);
    return QStringLiteral("%1 (PID %2)")
        .arg(consent::shownText(locker.appName), QString::number(locker.pid));
}

consent::Request unlockRequest(const QString& path, const QList<ProcessInfo>& lockers,
                               const QString& reason)
{
    QStringList labels;
    for (const ProcessInfo& locker : lockers)
        labels.append(labelOf(locker));
    return {.action = QStringLiteral("unlock_file"),
            .title = QStringLiteral("解锁文件"),
            .summary = QStringLiteral("AI 请求解锁文件「%1」")
                           .arg(consent::quotedText(QFileInfo(QDir::cleanPath(path)).fileName())),
            .detail = QStringLiteral("路径: %1\n将关闭以下 %2 个占用进程的句柄:\n  - %3")
                          .arg(consent::shownText(path), QString::number(lockers.size()),
                               labels.join(QStringLiteral("\n  - "))),
            .reason = reason};
}

QJsonArray toArray(const QList<ProcessInfo>& lockers)
{
    QJsonArray objects;
    for (const ProcessInfo& locker : lockers) {
        objects.append(QJsonObject{{QStringLiteral("pid"), static_cast<qint64>(locker.pid)},
                                   {QStringLiteral("app_name"), locker.appName},
                                   {QStringLiteral("exe_path"), locker.exePath}});
    }
    return objects;
}

} // namespace

QJsonObject toolFindLargeFiles(const QJsonObject& args, const ProgressCallback& progress)
{
    const Watchdog::Work work;
    const QString root =
        args.value(QLatin1String("root_path"))
            .toString(QStandardPaths::writableLocation(QStandardPaths::HomeLocation));
    const qint64 given = integerArgument(args, QLatin1String("min_size_bytes"));
    const qint64 minSize = given > 0 ? given : defaultMinSize;
    const qint64 maxResults = args.value(QLatin1String("max_results")).toInteger(defaultMaxResults);
    if (!QDir(root).exists())
        throwToolError(QStringLiteral("路径不存在: %1").arg(root));

    LargeFileProgress report;
    if (progress) {
        report = [&progress](qint64 scanned, qint64 hits, const QString& path) {
            progress({{QStringLiteral("scanned_files"), scanned},
                      {QStringLiteral("current_hits"), hits},
                      {QStringLiteral("current_path"), path}});
        };
    }
    const LargeFiles found = findLargeFiles(root, minSize, maxResults, report);
    QJsonArray files;
    for (const LargeFile& file : found.files) {
        files.append(QJsonObject{{QStringLiteral("path"), file.path},
                                 {QStringLiteral("size_bytes"), file.bytes},
                                 {QStringLiteral("size_mb"), roundedMebibytes(file.bytes)}});
    }
    return {{QStringLiteral("scanned_files"), found.scanned},
            {QStringLiteral("hit_count"), files.size()},
            {QStringLiteral("root_path"), root},
            {QStringLiteral("min_size_bytes"), minSize},
            {QStringLiteral("files"), files}};
}

QJsonObject toolUnlockFile(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString given = trimmedArgument(args, QLatin1String("path"));
    if (given.isEmpty())
        throwToolError(QStringLiteral("参数 path 不能为空"));
    const QFileInfo file(given);
    if (!file.exists())
        throwToolError(QStringLiteral("路径不存在: %1").arg(given));

    const QString path = QDir::toNativeSeparators(file.absoluteFilePath());
    FileUnlockService& service = Singleton<FileUnlockService>::instance();
    const LockerProbe probe = service.probeLockers({path});
    if (!probe.ok)
        throwToolError(probe.error);
    QJsonObject result{{QStringLiteral("unlocked"), true}, {QStringLiteral("path"), path}};
    if (probe.processes.isEmpty()) {
        result.insert(QStringLiteral("note"),
                      QStringLiteral("该文件当前未被任何进程占用,无需解锁"));
        return result;
    }
    requireConsent(
        unlockRequest(path, probe.processes, textArgument(args, QLatin1String("reason"))));
    const OpResult outcome = service.closeHandlesSync();
    if (!outcome.ok)
        throwToolError(outcome.message);
    result.insert(QStringLiteral("closed_processes"), toArray(probe.processes));
    result.insert(QStringLiteral("message"), outcome.message);
    return result;
}

} // namespace korvane
