// Listing of processes with its error bookkeeping.
#include "core/process_service.h"

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

} // namespace korvane
