// The tool that closes other processes' handles to a file, once the user has agreed.
#include "tools/handlers.h"

#include "core/file_unlock_service.h"
#include "tools/tool_support.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

namespace korvane {

namespace {

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
