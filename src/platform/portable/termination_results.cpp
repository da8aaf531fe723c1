// The sentences, each once for all platforms.
#include "platform/portable/termination_results.h"

namespace korvane::platform {

using namespace Qt::StringLiterals;

std::optional<OpResult> refusalToEnd(quint32 pid, const ShownProcesses& shown, quint32 initPid)
{
    if (pid == initPid)
        return OpResult{false, u"拒绝结束系统的初始进程 (PID %1)"_s.arg(pid)};
    if (!shown.startTimeOf(pid)) {
        return OpResult{false, u"拒绝结束 PID %1: 最近的进程或连接列表中没有它"_s.arg(pid)};
    }
    return std::nullopt;
}

OpResult endedProcess(quint32 pid)
{
    return {true, u"进程 (PID %1) 已结束"_s.arg(pid)};
}

OpResult exitedBefore(quint32 pid)
{
    return {true, u"进程 (PID %1) 已退出, 无需结束"_s.arg(pid)};
}

OpResult anotherProcess(quint32 pid)
{
    return {false, u"进程 (PID %1) 已退出, 该 PID 现属于另一个进程, 未结束任何进程"_s.arg(pid)};
}

OpResult notPermitted(quint32 pid)
{
    return {false, u"没有权限结束进程 (PID %1), 它属于其他用户"_s.arg(pid)};
}

OpResult outOfReach(quint32 pid)
{
    return {false, u"没有权限结束进程 (PID %1): 它属于其他用户, 权限更高或受系统保护"_s.arg(pid)};
}

OpResult ownProcess(quint32 pid)
{
    return {false, u"拒绝结束本程序自身 (PID %1)"_s.arg(pid)};
}

OpResult criticalProcess(quint32 pid)
{
    return {false, u"拒绝结束系统关键进程 (PID %1): 它一结束, 系统就会停止"_s.arg(pid)};
}

OpResult stillRunning(quint32 pid)
{
    return {false, u"已强制结束进程 (PID %1), 但它在 3 秒内仍未退出"_s.arg(pid)};
}

OpResult kernelThread(quint32 pid)
{
    return {false, u"拒绝结束内核线程 (PID %1)"_s.arg(pid)};
}

OpResult notEnded(quint32 pid, const QString& why)
{
    return {false, u"无法结束进程 (PID %1): %2"_s.arg(QString::number(pid), why)};
}

} // namespace korvane::platform
