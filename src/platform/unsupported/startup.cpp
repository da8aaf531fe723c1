// Startup items without a back end.
#include "platform/startup.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<StartupItem> platform::listRunItems(QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[StartupService] 当前平台不支持启动项枚举");
    return unsupported::failedListing<StartupItem>(error,
                                                   QStringLiteral("当前平台不支持启动项管理"));
}

QList<StartupItem> platform::listScheduledTasks(QString* error)
{
    return unsupported::failedListing<StartupItem>(error,
                                                   QStringLiteral("当前平台不支持计划任务枚举"));
}

QList<StartupItem> platform::listShellExtensions(QString* error)
{
    return unsupported::failedListing<StartupItem>(error,
                                                   QStringLiteral("当前平台不支持 Shell 扩展枚举"));
}

OpResult platform::setRunItemEnabled(StartupSource /*source*/, const QString& /*name*/,
                                     bool /*enabled*/)
{
    return {false, QStringLiteral("当前平台不支持启动项启用/禁用")};
}

} // namespace korvane
