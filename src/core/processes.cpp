// Listing of processes with its error bookkeeping.
#include "core/processes.h"

#include "core/shown_processes.h"
#include "platform/processes.h"

namespace korvane {

QList<ProcessSnapshot> ProcessService::listAllProcesses() const
{
    QString error;
    QList<ProcessSnapshot> processes = enumPlatform(&error);
    m_lastError = error;
    return processes;
}

std::chrono::nanoseconds ProcessService::cpuSettlingTime() const
{
    return m_cpuTable.settlingTime(std::chrono::steady_clock::now().time_since_epoch());
}

QString ProcessService::commandLine(unsigned int pid)
{
    return platform::processCommandLine(pid);
}

QList<ProcessSnapshot> ProcessService::enumPlatform(QString* error) const
{
    return platform::listProcesses(m_cpuTable, shownProcesses(), error);
}

} // namespace korvane
