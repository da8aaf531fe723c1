// Process enumeration from /proc.
#include "platform/processes.h"

#include "platform/linux/sys/proc_fs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <unistd.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace linux_platform;
using std::chrono::nanoseconds;

/// The units of the kernel's figures, which do not change while the machine runs.
struct KernelUnits
{
    qint64 pageBytes = ::sysconf(_SC_PAGESIZE);
    qint64 nanosecondsPerTick = 1'000'000'000 / ::sysconf(_SC_CLK_TCK);

    /// 292 years at most, where nanoseconds end: 4,096 processors use them in 26 days.
    nanoseconds cpuTime(quint64 ticks) const
    {
        const auto most = static_cast<quint64>(nanoseconds::max().count() / nanosecondsPerTick);
        return nanoseconds(static_cast<qint64>(std::min(ticks, most)) * nanosecondsPerTick);
    }
};

nanoseconds monotonicNow()
{
    return std::chrono::steady_clock::now().time_since_epoch();
}

QString unreadable(int errorNumber)
{
    return u"无法读取 /proc: %1"_s.arg(qt_error_string(errorNumber));
}

} // namespace

QList<ProcessSnapshot> platform::listProcesses(ProcessCpuTable& cpuTable, ShownProcesses& shown,
                                               QString* error)
{
    static const KernelUnits units;
    const auto fail = [error](int errorNumber) {
        if (error != nullptr)
            *error = unreadable(errorNumber);
        return QList<ProcessSnapshot>();
    };

    ProcFs procFs;
    if (!procFs.isOpen())
        return fail(errno);
    QList<ProcessSnapshot> processes;
    ShownProcesses listed;
    cpuTable.beginEnumeration(static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN)));
    while (const auto pid = procFs.nextPid()) {
        const auto content = procFs.readFile(*pid, "stat");
        if (!content && isOwnFailure(errno))
            return fail(errno);
        const auto stat = content ? parseProcStat(*content) : std::nullopt;
        if (!stat)
            continue;
        ProcessSnapshot process;
        process.pid = *pid;
        process.parentPid = stat->parentPid;
        process.cpuPercent = cpuTable.record({.pid = *pid,
                                              .startTime = stat->startTicks,
                                              .cpuTime = units.cpuTime(stat->cpuTicks),
                                              .takenAt = monotonicNow()});
        const auto task = stat->hasEnded ? procFs.livingTask(*pid) : Task(*pid);
        const auto identity = task ? procFs.identity(*task, *stat) : std::nullopt;
        if (!identity)
            return fail(errno);
        process.name = identity->name;
        process.exePath = identity->exePath;
        if (!stat->isKernelThread) {
            const auto pages = procFs.residentPages(*task);
            if (!pages && isOwnFailure(errno))
                return fail(errno);
            process.memoryBytes = pages.value_or(0) * units.pageBytes;
        }
        processes.append(process);
        listed.insert(*pid, stat->startTicks);
    }
    if (errno != 0)
        return fail(errno);
    // This program is a process itself: a list without any is no list of processes.
    if (processes.isEmpty())
        return fail(ENOENT);
    cpuTable.endEnumeration();
    shown = listed;
    return processes;
}

} // namespace korvane
