// Enumeration of installed software without a back end.
#include "platform/software.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

using namespace Qt::StringLiterals;

QList<UninstallEntry> platform::listSoftware(QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[UninstallService] 当前平台不支持已安装软件枚举");
    return unsupported::failedListing<UninstallEntry>(error, u"当前平台不支持已安装软件枚举"_s);
}

} // namespace korvane
