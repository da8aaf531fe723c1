// The tools that list network endpoints and find who holds a port.
#include "tools/handlers.h"

#include "core/network.h"
#include "tools/tool_support.h"

#include <QJsonArray>

namespace korvane {

namespace {

QJsonObject connectionObject(const NetConnection& connection)
{
    return {
        {QStringLiteral("protocol"), protocolLabel(connection.protocol)},
        {QStringLiteral("ip_version"), familyLabel(connection.family)},
        {QStringLiteral("local"), connection.localEndpoint()},
        {QStringLiteral("remote"), connection.remoteEndpoint()},
        {QStringLiteral("state"), stateLabel(connection)},
        {QStringLiteral("pid"), static_cast<qint64>(connection.pid)},
        {QStringLiteral("process_name"), connection.processName},
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
    return {{QStringLiteral("total"), objects.size()},
            {QStringLiteral("tcp_count"), tcpCount},
            {QStringLiteral("udp_count"), objects.size() - tcpCount},
            {QStringLiteral("ipv6_count"), ipv6Count},
            {QStringLiteral("connections"), objects}};
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
    return {{QStringLiteral("port"), port},
            {QStringLiteral("matches"), objects.size()},
            {QStringLiteral("connections"), objects}};
}

} // namespace korvane
