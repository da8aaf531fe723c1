// The tool that takes one snapshot of the machine's load.
#include "tools/handlers.h"

#include "base/byte_size.h"
#include "core/metrics.h"

namespace korvane {

namespace {

/// How long the load is measured.
constexpr std::chrono::milliseconds measuringTime{250};

} // namespace

QJsonObject toolGetSystemMetrics(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const SystemMetrics sample = measureLoad(measuringTime);
    const auto integer = [](quint64 bytes) { return static_cast<qint64>(bytes); };
    return {
        {QStringLiteral("cpu_percent"), sample.cpuPercent},
        {QStringLiteral("memory_percent"), sample.memoryPercent},
        {QStringLiteral("memory_used_bytes"), integer(sample.memoryUsedBytes)},
        {QStringLiteral("memory_total_bytes"), integer(sample.memoryTotalBytes)},
        {QStringLiteral("memory_display"),
         gibibytesDisplay(sample.memoryUsedBytes, sample.memoryTotalBytes)},
        {QStringLiteral("commit_percent"), sample.commitPercent},
        {QStringLiteral("commit_charge_bytes"), integer(sample.commitChargeBytes)},
        {QStringLiteral("commit_limit_bytes"), integer(sample.commitLimitBytes)},
        {QStringLiteral("commit_display"),
         gibibytesDisplay(sample.commitChargeBytes, sample.commitLimitBytes)},
        {QStringLiteral("disk_percent"), sample.diskPercent},
        {QStringLiteral("disk_read_kbs"), sample.diskReadKbs},
        {QStringLiteral("disk_write_kbs"), sample.diskWriteKbs},
        {QStringLiteral("net_recv_kbs"), sample.netRecvKbs},
        {QStringLiteral("net_send_kbs"), sample.netSendKbs},
        {QStringLiteral("commit_note"),
         QStringLiteral("提交内存(commit charge)是 OS 的承诺计数器, 非物理占用, 无法'清理'; "
                        "逼近上限(commit_percent>90)才是真风险(新内存分配失败/程序崩溃)。"
                        "memory_percent 高但 commit 充裕多为正常缓存, 无需处理。")},
    };
}

} // namespace korvane
