// The tool that takes one snapshot of the machine's load.
#include "tools/handlers.h"

#include "base/byte_size.h"
#include "core/metrics.h"

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

/// How long the load is measured.
constexpr std::chrono::milliseconds measuringTime{250};

} // namespace

QJsonObject toolGetSystemMetrics(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const SystemMetrics sample = measureLoad(measuringTime);
    const auto integer = [](quint64 bytes) { return static_cast<qint64>(bytes); };
    return {
        {u"cpu_percent"_s, sample.cpuPercent},
        {u"memory_percent"_s, sample.memoryPercent},
        {u"memory_used_bytes"_s, integer(sample.memoryUsedBytes)},
        {u"memory_total_bytes"_s, integer(sample.memoryTotalBytes)},
        {u"memory_display"_s, gibibytesDisplay(sample.memoryUsedBytes, sample.memoryTotalBytes)},
        {u"commit_percent"_s, sample.commitPercent},
        {u"commit_charge_bytes"_s, integer(sample.commitChargeBytes)},
        {u"commit_limit_bytes"_s, integer(sample.commitLimitBytes)},
        {u"commit_display"_s, gibibytesDisplay(sample.commitChargeBytes, sample.commitLimitBytes)},
        {u"disk_percent"_s, sample.diskPercent},
        {u"disk_read_kbs"_s, sample.diskReadKbs},
        {u"disk_write_kbs"_s, sample.diskWriteKbs},
        {u"net_recv_kbs"_s, sample.netRecvKbs},
        {u"net_send_kbs"_s, sample.netSendKbs},
        {u"commit_note"_s, u"提交内存(commit charge)是 OS 的承诺计数器, 非物理占用, 无法'清理'; "
                           "逼近上限(commit_percent>90)才是真风险(新内存分配失败/程序崩溃)。"
                           "memory_percent 高但 commit 充裕多为正常缓存, 无需处理。"_s},
    };
}

} // namespace korvane
