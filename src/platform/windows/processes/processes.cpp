// Process enumeration by the system's table of processes.
#include "platform/processes.h"

#include "platform/windows/processes/process_table.h"

#include <algorithm>
#include <chrono>

#include <windows.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace windows_platform;
using std::chrono::nanoseconds;

/// The unit of the system's times.
using Ticks = std::chrono::duration<qint64, std::ratio<1, 10'000'000>>;

nanoseconds cpuTime(quint64 ticks)
{
    constexpr auto most = std::chrono::duration_cast<Ticks>(nanoseconds::max()).count();
    return Ticks(static_cast<qint64>(std::min(ticks, quint64{most})));
}

/// The paths of executables, each asked for once: to open every process would cost more than all else.
class ExecutablePaths
{
public:
    const QString& of(const ProcessRecord& process)
    {
        Entry& entry = m_entries[process.pid];
        if (entry.listing == 0 || entry.createdAt != process.createdAt)
            entry = {process.createdAt, executablePath(process), 0};
        entry.listing = m_listing;
        return entry.path;
    }

    /// Forgets those that were not asked for since the last call.
    void endListing()
    {
        m_entries.removeIf(
            [this](QHash<quint32, Entry>::iterator entry) { return entry->listing != m_listing; });
        ++m_listing;
    }

private:
    struct Entry
    {
        quint64 createdAt = 0;
        QString path;
        quint64 listing = 0; ///< The latest one that had it; 0 before any.
    };

    QHash<quint32, Entry> m_entries;
    quint64 m_listing = 1;
};

/// When the process under each PID was started.
QHash<quint32, quint64> startTimes(const std::vector<ProcessRecord>& records)
{
    QHash<quint32, quint64> times;
    times.reserve(static_cast<qsizetype>(records.size()));
    for (const ProcessRecord& record : records)
        times.insert(record.pid, record.createdAt);
    return times;
}

} // namespace

QList<ProcessSnapshot> platform::listProcesses(ProcessCpuTable& cpuTable, ShownProcesses& shown,
                                               QString* error)
{
    static ExecutablePaths paths;
    const auto records = processTable();
    const nanoseconds takenAt = std::chrono::steady_clock::now().time_since_epoch();
    // This program is a process itself: a list without any is no list of processes.
    if (!records || records->empty()) {
        if (error != nullptr)
            *error = u"无法读取系统的进程表"_s;
        return {};
    }
    const QHash<quint32, quint64> startedAt = startTimes(*records);
    QList<ProcessSnapshot> processes;
    processes.reserve(static_cast<qsizetype>(records->size()));
    ShownProcesses listed;
    cpuTable.beginEnumeration(static_cast<int>(GetActiveProcessorCount(ALL_PROCESSOR_GROUPS)));
    for (const ProcessRecord& record : *records) {
        ProcessSnapshot process;
        process.pid = record.pid;
        // One that has the PID of whoever started it, but is younger, has nothing to do with it.
        const auto parent = startedAt.constFind(record.parentPid);
        if (parent != startedAt.cend() && *parent <= record.createdAt)
            process.parentPid = record.parentPid;
        process.name = record.name;
        process.exePath = paths.of(record);
        process.memoryBytes = record.workingSet;
        process.cpuPercent = cpuTable.record({.pid = record.pid,
                                              .startTime = record.createdAt,
                                              .cpuTime = cpuTime(record.cpuTime),
                                              .takenAt = takenAt});
        processes.append(process);
        listed.insert(record.pid, record.createdAt);
    }
    cpuTable.endEnumeration();
    paths.endListing();
    shown = listed;
    return processes;
}

} // namespace korvane
