// Listing of connections with its error bookkeeping.
#include "core/network.h"

#include "core/shown_processes.h"
#include "platform/network.h"

namespace korvane {

QList<NetConnection> NetMonitorService::listAll() const
{
    QString error;
    QList<NetConnection> connections = enumPlatform(&error);
    m_lastError = error;
    return connections;
}

QList<NetConnection> NetMonitorService::enumPlatform(QString* error) const
{
    return platform::listConnections(shownProcesses(), error);
}

} // namespace korvane
