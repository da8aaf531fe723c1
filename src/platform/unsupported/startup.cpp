// Startup items without a back end.
#include "platform/startup.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

using namespace Qt::StringLiterals;

QList<StartupItem> platform::listRunItems(QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[StartupService] 当前平台不支持启动项枚举");
    return unsupported::failedListing<StartupItem>(error, u"当前平台不支持启动项管理"_s);
}

QList<StartupItem> platform::listScheduledTasks(QString* error)
{
    return unsupported::failedListing<StartupItem>(error, u"当前平台不支持计划任务枚举"_s);
}

QList<StartupItem> platform::listShellExtensions(QString* error)
{
    return unsupported::failedListing<StartupItem>(error, u"当前平台不支持 Shell 扩展枚举"_s);
}

OpResult platform::setRunItemEnabled(StartupSource /*source*/, const QString& /*name*/,
                                     bool /*enabled*/)
{
    return {false, u"当前平台不支持启动项启用/禁用"_s};
}

} // namespace korvane
