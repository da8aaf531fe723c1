// The tools that list processes, show their lineage and read a command line.
#include "tools/handlers.h"

#include "core/process_service.h"
#include "core/signature_service.h"
#include "platform/platform.h"
#include "tools/process_tree.h"
#include "tools/tool_support.h"

#include <QJsonArray>

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
    if (tree.textSize() > ProcessTree::maxTextSize)
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
        namesProcess ? platform::processCommandLine(static_cast<quint32>(pid)) : QString();
    const QString note =
        commandLine.isEmpty()
            ? QStringLiteral(
                  "读取失败 — 可能是受保护进程/系统进程/已退出, 或 32 位进程在 64 位下不可跨位读")
            : QStringLiteral("");
    return {{QStringLiteral("pid"), pid},
            {QStringLiteral("command_line"), commandLine},
            {QStringLiteral("note"), note}};
}

} // namespace korvane
