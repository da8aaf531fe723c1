// Connection enumeration without a back end.
#include "platform/network.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

using namespace Qt::StringLiterals;

QList<NetConnection> platform::listConnections(ShownProcesses& /*shown*/, QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[NetMonitorService] 当前平台不支持 TCP 枚举");
    return unsupported::failedListing<NetConnection>(error, u"当前平台不支持网络监视"_s);
}

} // namespace korvane
