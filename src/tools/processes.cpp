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

using namespace Qt::StringLiterals;

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
        {u"pid"_s, static_cast<qint64>(process.pid)},
        {u"parent_pid"_s, static_cast<qint64>(process.parentPid)},
        {u"name"_s, process.name},
        {u"exe_path"_s, process.exePath},
        {u"memory_bytes"_s, process.memoryBytes},
        {u"memory_display"_s, process.memoryDisplay()},
        {u"cpu_percent"_s, process.cpuPercent},
        {u"cpu_display"_s, process.cpuDisplay()},
        {u"signature"_s, signatureStatusLabel(signature)},
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
        throwToolError(u"找不到 PID %1 对应的进程 — 可能已退出"_s.arg(pid));
    return *found;
}

consent::Request terminationRequest(const ProcessSnapshot& process, const QString& reason)
{
    QString detail = u"可执行路径: %1"_s.arg(
        process.exePath.isEmpty() ? u"(未知)"_s : consent::shownText(process.exePath));
    if (process.memoryBytes >= 1) {
        const double mib = mebibytes(process.memoryBytes);
        detail += u"\n内存占用: %1 MB"_s.arg(QString::number(mib, 'f', 1));
    }
    return {.action = u"kill_process"_s,
            .title = u"结束进程"_s,
            .summary = u"AI 请求强制结束进程「%1」(PID %2)"_s.arg(consent::quotedText(process.name),
                                                                  QString::number(process.pid)),
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
                                 ? u"未知"_s
                                 : consent::shownText(connection.processName);
        holders.pids.append(pid);
        holders.labels.append(u"%1 (PID %2)"_s.arg(name, QString::number(pid)));
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
        {u"trusted_cached"_s, counts.value(SignatureStatus::Trusted)},
        {u"untrusted_cached"_s, counts.value(SignatureStatus::Untrusted)},
        {u"unsigned_cached"_s, counts.value(SignatureStatus::Unsigned)},
        {u"note"_s, u"签名仅返回 panel/MCP 已查询过的缓存值;Korvane GUI "
                    "里点「验签可见行」会触发实际 WinVerifyTrust"_s},
    };
    return {
        {u"total"_s, objects.size()}, {u"processes"_s, objects}, {u"signature_summary"_s, summary}};
}

QJsonObject toolGetProcessTree(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const ProcessService& service = processService();
    const QList<ProcessSnapshot> processes = service.listAllProcesses();
    requireListed(processes, service);

    const ProcessTree tree(processes);
    if (tree.textSizeBound() > ProcessTree::maxTextSize)
        throwToolError(u"进程树过深 — 缩进文本将超过 64 MiB, 请改用 list_processes"_s);
    return {{u"total"_s, processes.size()}, {u"roots"_s, tree.toJson()}};
}

QJsonObject toolGetProcessCommandLine(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 pid = integerArgument(args, "pid"_L1);
    if (pid <= 0)
        throwToolError(u"参数 pid 缺失或非法 — 必须是正整数"_s);

    // A value beyond the type names no process; narrowing it would name another one.
    const bool namesProcess = pid <= std::numeric_limits<quint32>::max();
    const QString commandLine =
        namesProcess ? ProcessService::commandLine(static_cast<quint32>(pid)) : QString();
    const QString note =
        commandLine.isEmpty()
            ? u"读取失败 — 可能是受保护进程/系统进程/已退出, 或 32 位进程在 64 位下不可跨位读"_s
            : u""_s;
    return {{u"pid"_s, pid}, {u"command_line"_s, commandLine}, {u"note"_s, note}};
}

QJsonObject toolKillProcess(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 number = integerArgument(args, "pid"_L1);
    if (number < 1)
        throwToolError(u"参数 pid 缺失或非法 — 必须是正整数"_s);
    const auto pid = static_cast<quint32>(number); // its low 32 bits
    if (isCritical(pid))
        throwToolError(u"拒绝结束系统关键进程 (System Idle Process / System)"_s);
    if (isSelf(pid))
        throwToolError(u"拒绝结束 Korvane 自身进程"_s);

    const ProcessSnapshot process = findProcess(pid);
    requireConsent(terminationRequest(process, textArgument(args, "reason"_L1)));
    const OpResult result = Singleton<FileUnlockService>::instance().killProcess(pid);
    if (!result.ok)
        throwToolError(result.message);
    return {{u"killed"_s, true},
            {u"pid"_s, static_cast<qint64>(pid)},
            {u"process_name"_s, process.name},
            {u"message"_s, result.message}};
}

QJsonObject toolKillByPort(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 port = portArgument(args);
    const PortHolders holders = findHolders(port);
    if (holders.pids.isEmpty())
        throwToolError(u"端口 %1 未发现可结束的占用进程"_s.arg(port));

    requireConsent({.action = u"kill_by_port"_s,
                    .title = u"按端口结束进程"_s,
                    .summary = u"AI 请求结束占用端口 %1 的 %2 个进程"_s.arg(
                        QString::number(port), QString::number(holders.pids.size())),
                    .detail = holders.labels.join(u'\n'),
                    .reason = textArgument(args, "reason"_L1)});
    QJsonArray killed;
    QJsonArray failed;
    for (const quint32 pid : holders.pids) {
        const OpResult result = Singleton<FileUnlockService>::instance().killProcess(pid);
        (result.ok ? killed : failed)
            .append(
                QJsonObject{{u"pid"_s, static_cast<qint64>(pid)}, {u"message"_s, result.message}});
    }
    return {{u"port"_s, port},
            {u"killed_count"_s, killed.size()},
            {u"failed_count"_s, failed.size()},
            {u"killed"_s, killed},
            {u"failed"_s, failed}};
}

} // namespace korvane
