// Startup items without a back end.
#include "core/startup_service.h"
#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<StartupItem> StartupService::enumPlatform(QString* error) const
{
    static bool logged = false;
    unsupported::logOnce(logged, "[StartupService] 当前平台不支持启动项枚举");
    return unsupported::failedListing<StartupItem>(error,
                                                   QStringLiteral("当前平台不支持启动项管理"));
}

QList<StartupItem> StartupService::enumScheduledTasksPlatform(QString* error) const
{
    return unsupported::failedListing<StartupItem>(error,
                                                   QStringLiteral("当前平台不支持计划任务枚举"));
}

QList<StartupItem> StartupService::enumShellExtensionsPlatform(QString* error) const
{
    return unsupported::failedListing<StartupItem>(error,
                                                   QStringLiteral("当前平台不支持 Shell 扩展枚举"));
}

OpResult StartupService::setEnabledPlatform(StartupSource /*source*/, const QString& /*name*/,
                                            bool /*enabled*/)
{
    return {false, QStringLiteral("当前平台不支持启动项启用/禁用")};
}

} // namespace korvane
