// The tools that list processes, show their lineage, read a command line and, once the user has agreed,
// end processes by PID or by the port they hold.
#include "tools/handlers.h"

#include "base/byte_size.h"
#include "core/file_unlock.h"
#include "core/network.h"
#include "core/process_tree.h"
#include "core/processes.h"
#include "core/signatures.h"
#include "tools/tool_support.h"

#include <QCoreApplication>
#include <QJsonArray>

#include <algorithm>
#include <chrono>
#include <limits>
#include <thread>

namespace korvane {

namespace {

/// How long the first listing waits, so that processor use is measured over a useful time.
constexpr std::chrono::milliseconds primingTime{500};

const ProcessService& processService()
{
    return Singleton<ProcessService>::instance();
}

/// Returns when the next listing can measure processor use.
void awaitCpuSamples(const ProcessService& service)
{
    if (service.hasCpuSamples()) {
        std::this_thread::sleep_for(service.cpuSettlingTime());
        return;
    }
    service.listAllProcesses();
    std::this_thread::sleep_for(primingTime);
}

QJsonObject processObject(const ProcessSnapshot& process, SignatureStatus signature)
{
    return {
        {QStringLiteral("pid"), static_cast<qint64>(process.pid)},
        {QStringLiteral("parent_pid"), static_cast<qint64>(process.parentPid)},
        {QStringLiteral("name"), process.name},
        {QStringLiteral("exe_path"), process.exePath},
        {QStringLiteral("memory_bytes"), process.memoryBytes},
        {QStringLiteral("memory_display"), process.memoryDisplay()},
        {QStringLiteral("cpu_percent"), process.cpuPercent},
        {QStringLiteral("cpu_display"), process.cpuDisplay()},
        {QStringLiteral("signature"), signatureStatusLabel(signature)},
    };
}

/// The PIDs that stand for the kernel itself on one platform or another.
bool isCritical(quint32 pid)
{
    return pid == 0 || pid == 4;
}

bool isSelf(quint32 pid)
{
    return pid == static_cast<quint32>(QCoreApplication::applicationPid());
}

ProcessSnapshot findProcess(quint32 pid)
{
    const auto processes = Singleton<ProcessService>::instance().listAllProcesses();
    const auto found =
        std::find_if(processes.cbegin(), processes.cend(),
                     [pid](const ProcessSnapshot& process) { return process.pid == pid; });
    if (found == processes.cend())
        throwToolError(QStringLiteral("找不到 PID %1 对应的进程 — 可能已退出").arg(pid));
    return *found;
}

consent::Request terminationRequest(const ProcessSnapshot& process, const QString& reason)
{
    QString detail = QStringLiteral("可执行路径: %1")
                         .arg(process.exePath.isEmpty() ? QStringLiteral("(未知)")
                                                        : consent::shownText(process.exePath));
    if (process.memoryBytes >= 1) {
        const double mib = mebibytes(process.memoryBytes);
        detail += QStringLiteral("\n内存占用: %1 MB").arg(QString::number(mib, 'f', 1));
    }
    return {.action = QStringLiteral("kill_process"),
            .title = QStringLiteral("结束进程"),
            .summary = QStringLiteral("AI 请求强制结束进程「%1」(PID %2)")
                           .arg(consent::quotedText(process.name), QString::number(process.pid)),
            .detail = detail,
            .reason = reason};
}

/// The processes that hold a port and may be ended, each once, with what the dialog shows of them.
struct PortHolders
{
    QList<quint32> pids;
    QStringList labels;
};

PortHolders findHolders(qint64 port)
{
    PortHolders holders;
    const auto connections = Singleton<NetMonitorService>::instance().listAll();
    for (const NetConnection& connection : connections) {
        const quint32 pid = connection.pid;
        if (connection.localPort != port || isCritical(pid) || isSelf(pid) ||
            holders.pids.contains(pid))
            continue;
        const QString name = connection.processName.isEmpty()
                                 ? QStringLiteral("未知")
                                 : consent::shownText(connection.processName);
        holders.pids.append(pid);
        holders.labels.append(QStringLiteral("%1 (PID %2)").arg(name, QString::number(pid)));
    }
    return holders;
}

} // namespace

QJsonObject toolListProcesses(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const ProcessService& service = processService();
    awaitCpuSamples(service);
    const QList<ProcessSnapshot> processes = service.listAllProcesses();
    requireListed(processes, service);

    const SignatureService& signatures = Singleton<SignatureService>::instance();
    QHash<SignatureStatus, int> counts;
    QJsonArray objects;
    for (const ProcessSnapshot& process : processes) {
        const SignatureStatus signature = signatures.cached(process.exePath);
        ++counts[signature];
        objects.append(processObject(process, signature));
    }

    const QJsonObject summary{
        {QStringLiteral("trusted_cached"), counts.value(SignatureStatus::Trusted)},
        {QStringLiteral("untrusted_cached"), counts.value(SignatureStatus::Untrusted)},
        {QStringLiteral("unsigned_cached"), counts.value(SignatureStatus::Unsigned)},
        {QStringLiteral("note"), QStringLiteral("签名仅返回 panel/MCP 已查询过的缓存值;Korvane GUI "
                                                "里点「验签可见行」会触发实际 WinVerifyTrust")},
    };
    return {{QStringLiteral("total"), objects.size()},
            {QStringLiteral("processes"), objects},
            {QStringLiteral("signature_summary"), summary}};
}

QJsonObject toolGetProcessTree(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const ProcessService& service = processService();
    const QList<ProcessSnapshot> processes = service.listAllProcesses();
    requireListed(processes, service);

    const ProcessTree tree(processes);
    if (tree.textSizeBound() > ProcessTree::maxTextSize)
        throwToolError(QStringLiteral("进程树过深 — 缩进文本将超过 64 MiB, 请改用 list_processes"));
    return {{QStringLiteral("total"), processes.size()}, {QStringLiteral("roots"), tree.toJson()}};
}

QJsonObject toolGetProcessCommandLine(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 pid = integerArgument(args, QLatin1String("pid"));
    if (pid <= 0)
        throwToolError(QStringLiteral("参数 pid 缺失或非法 — 必须是正整数"));

    // A value beyond the type names no process; narrowing it would name another one.
    const bool namesProcess = pid <= std::numeric_limits<quint32>::max();
    const QString commandLine =
        namesProcess ? ProcessService::commandLine(static_cast<quint32>(pid)) : QString();
    const QString note =
        commandLine.isEmpty()
            ? QStringLiteral(
                  "读取失败 — 可能是受保护进程/系统进程/已退出, 或 32 位进程在 64 位下不可跨位读")
            : QStringLiteral("");
    return {{QStringLiteral("pid"), pid},
            {QStringLiteral("command_line"), commandLine},
            {QStringLiteral("note"), note}};
}

QJsonObject toolKillProcess(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 number = integerArgument(args, QLatin1String("pid"));
    if (number < 1)
        throwToolError(QStringLiteral("参数 pid 缺失或非法 — 必须是正整数"));
    const auto pid = static_cast<quint32>(number); // its low 32 bits
    if (isCritical(pid))
        throwToolError(QStringLiteral("拒绝结束系统关键进程 (System Idle Process / System)"));
    if (isSelf(pid))
        throwToolError(QStringLiteral("拒绝结束 Korvane 自身进程"));

    const ProcessSnapshot process = findProcess(pid);
    requireConsent(terminationRequest(process, textArgument(args, QLatin1String("reason"))));
    const OpResult result = Singleton<FileUnlockService>::instance().killProcess(pid);
    if (!result.ok)
        throwToolError(result.message);
    return {{QStringLiteral("killed"), true},
            {QStringLiteral("pid"), static_cast<qint64>(pid)},
            {QStringLiteral("process_name"), process.name},
            {QStringLiteral("message"), result.message}};
}

QJsonObject toolKillByPort(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 port = portArgument(args);
    const PortHolders holders = findHolders(port);
    if (holders.pids.isEmpty())
        throwToolError(QStringLiteral("端口 %1 未发现可结束的占用进程").arg(port));

    requireConsent(
        {.action = QStringLiteral("kill_by_port"),
         .title = QStringLiteral("按端口结束进程"),
         .summary = QStringLiteral("AI 请求结束占用端口 %1 的 %2 个进程")
                        .arg(QString::number(port), QString::number(holders.pids.size())),
         .detail = holders.labels.join(u'\n'),
         .reason = textArgument(args, QLatin1String("reason"))});
    QJsonArray killed;
    QJsonArray failed;
    for (const quint32 pid : holders.pids) {
        const OpResult result = Singleton<FileUnlockService>::instance().killProcess(pid);
        (result.ok ? killed : failed)
            .append(QJsonObject{{QStringLiteral("pid"), static_cast<qint64>(pid)},
                                {QStringLiteral("message"), result.message}});
    }
    return {{QStringLiteral("port"), port},
            {QStringLiteral("killed_count"), killed.size()},
            {QStringLiteral("failed_count"), failed.size()},
            {QStringLiteral("killed"), killed},
            {QStringLiteral("failed"), failed}};
}

} // namespace korvane
