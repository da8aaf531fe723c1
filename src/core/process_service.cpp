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

} // namespace korvane
