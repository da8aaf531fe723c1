// Changes to services without a back end.
#include "core/service_manager_service.h"

namespace korvane {

namespace {

OpResult notSupported()
{
    return {false, QStringLiteral("当前平台不支持服务管理")};
}

} // namespace

OpResult ServiceManagerService::startServicePlatform(const QString& /*name*/)
{
    return notSupported();
}

OpResult ServiceManagerService::stopServicePlatform(const QString& /*name*/)
{
    return notSupported();
}

OpResult ServiceManagerService::setEnabledPlatform(const QString& /*name*/, bool /*enabled*/)
{
    return notSupported();
}

OpResult ServiceManagerService::setStartTypePlatform(const QString& /*name*/,
                                                     ServiceStartType /*type*/)
{
    return notSupported();
}

} // namespace korvane
