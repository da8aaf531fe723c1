// A process and those that started it, from one table.
#include "platform/processes.h"

#include "platform/windows/processes/process_table.h"

#include <algorithm>
#include <limits>

namespace korvane {

QList<ProcessSnapshot> platform::processAndAncestors(quint32 pid)
{
    using windows_platform::ProcessRecord;
    constexpr qsizetype maxProcesses = 16;

    const auto records = windows_platform::processTable();
    if (!records)
        return {};
    QList<ProcessSnapshot> processes;
    quint64 childCreatedAt = std::numeric_limits<quint64>::max();
    while (processes.size() < maxProcesses) {
        const auto record = std::ranges::find(*records, pid, &ProcessRecord::pid);
        if (record == records->end() || record->createdAt > childCreatedAt)
            break;
        childCreatedAt = record->createdAt;
        ProcessSnapshot process;
        process.pid = pid;
        process.parentPid = record->parentPid;
        process.name = record->name;
        process.exePath = windows_platform::executablePath(*record);
        processes.append(process);
        if (record->parentPid == pid)
            break;
        pid = record->parentPid;
    }
    return processes;
}

} // namespace korvane
