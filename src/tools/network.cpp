// The tools that list network endpoints and find who holds a port.
#include "tools/handlers.h"

#include "core/network.h"
#include "tools/tool_support.h"

#include <QJsonArray>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QJsonObject connectionObject(const NetConnection& connection)
{
    return {
        {u"protocol"_s, protocolLabel(connection.protocol)},
        {u"ip_version"_s, familyLabel(connection.family)},
        {u"local"_s, connection.localEndpoint()},
        {u"remote"_s, connection.remoteEndpoint()},
        {u"state"_s, stateLabel(connection)},
        {u"pid"_s, static_cast<qint64>(connection.pid)},
        {u"process_name"_s, connection.processName},
    };
}

} // namespace

QJsonObject toolListNetworkConnections(const QJsonObject& /*args*/,
                                       const ProgressCallback& /*progress*/)
{
    const QList<NetConnection> connections = listAll<NetMonitorService>();
    qsizetype tcpCount = 0;
    qsizetype ipv6Count = 0;
    QJsonArray objects;
    for (const NetConnection& connection : connections) {
        tcpCount += connection.protocol == 0 ? 1 : 0;
        ipv6Count += connection.family == 1 ? 1 : 0;
        objects.append(connectionObject(connection));
    }
    return {{u"total"_s, objects.size()},
            {u"tcp_count"_s, tcpCount},
            {u"udp_count"_s, objects.size() - tcpCount},
            {u"ipv6_count"_s, ipv6Count},
            {u"connections"_s, objects}};
}

QJsonObject toolFindProcessByPort(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const qint64 port = portArgument(args);
    const QList<NetConnection> connections = listAll<NetMonitorService>();
    QJsonArray objects;
    for (const NetConnection& connection : connections) {
        if (connection.localPort == port)
            objects.append(connectionObject(connection));
    }
    return {{u"port"_s, port}, {u"matches"_s, objects.size()}, {u"connections"_s, objects}};
}

} // namespace korvane
