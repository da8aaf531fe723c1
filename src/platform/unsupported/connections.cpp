// Connection enumeration without a back end.
#include "core/net_monitor_service.h"
#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<NetConnection> NetMonitorService::enumPlatform(QString* error) const
{
    static bool logged = false;
    unsupported::logOnce(logged, "[NetMonitorService] 当前平台不支持 TCP 枚举");
    return unsupported::failedListing<NetConnection>(error,
                                                     QStringLiteral("当前平台不支持网络监视"));
}

} // namespace korvane
