// Service enumeration without a back end.
#include "core/service_manager_service.h"
#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<ServiceItem> ServiceManagerService::enumPlatform(QString* error) const
{
    static bool logged = false;
    unsupported::logOnce(logged, "[ServiceManagerService] 当前平台不支持服务枚举");
    return unsupported::failedListing<ServiceItem>(error, QStringLiteral("当前平台不支持服务管理"));
}

QList<QString> ServiceManagerService::enumDependentsPlatform(const QString& /*name*/) const
{
    return {};
}

QList<QString> ServiceManagerService::queryDependenciesPlatform(const QString& /*name*/) const
{
    return {};
}

} // namespace korvane
