// Enumeration of installed software without a back end.
#include "platform/software.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<UninstallEntry> platform::listSoftware(QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[UninstallService] 当前平台不支持已安装软件枚举");
    return unsupported::failedListing<UninstallEntry>(
        error, QStringLiteral("当前平台不支持已安装软件枚举"));
}

} // namespace korvane
