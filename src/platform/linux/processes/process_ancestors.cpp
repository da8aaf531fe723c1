// A process and those that started it, from /proc.
#include "platform/processes.h"

#include "platform/linux/sys/proc_fs.h"

#include <limits>

namespace korvane {

QList<ProcessSnapshot> platform::processAndAncestors(quint32 pid)
{
    using namespace linux_platform;
    constexpr qsizetype maxProcesses = 16;

    QList<ProcessSnapshot> processes;
    ProcFs procFs;
    quint64 childStart = std::numeric_limits<quint64>::max();
    // PID 0 stands for what this PID namespace does not show.
    while (procFs.isOpen() && pid != 0 && processes.size() < maxProcesses) {
        const auto content = procFs.readFile(pid, "stat");
        const auto stat = content ? parseProcStat(*content) : std::nullopt;
        if (!stat || stat->startTicks > childStart)
            break;
        const quint32 parent = stat->parentPid;
        childStart = stat->startTicks;
        const auto identity = procFs.identity(procFs.livingTask(pid).value_or(Task(pid)), *stat);
        if (!identity)
            break;
        ProcessSnapshot process;
        process.pid = pid;
        process.parentPid = parent;
        process.name = identity->name;
        process.exePath = identity->exePath;
        processes.append(process);
        pid = parent;
    }
    return processes;
}

} // namespace korvane
