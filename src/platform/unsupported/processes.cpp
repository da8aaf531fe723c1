// Process enumeration without a back end.
#include "core/process_service.h"
#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<ProcessSnapshot> ProcessService::enumPlatform(QString* error) const
{
    static bool logged = false;
    unsupported::logOnce(logged, "[ProcessService] 当前平台不支持进程枚举, 返回空列表");
    return unsupported::failedListing<ProcessSnapshot>(error,
                                                       QStringLiteral("当前平台不支持进程枚举"));
}

} // namespace korvane
