// Listing of connections with its error bookkeeping.
#include "core/net_monitor_service.h"

namespace korvane {

QList<NetConnection> NetMonitorService::listAll() const
{
    QString error;
    QList<NetConnection> connections = enumPlatform(&error);
    m_lastError = error;
    return connections;
}

} // namespace korvane
