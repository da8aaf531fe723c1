// Startup items: what each kind is read from.
#include "platform/startup.h"

#include "platform/windows/startup/run_keys.h"
#include "platform/windows/startup/scheduled_tasks.h"
#include "platform/windows/startup/shell_extensions.h"

namespace korvane {

QList<StartupItem> platform::listRunItems(QString* error)
{
    return windows_platform::listRunKeys(error);
}

QList<StartupItem> platform::listScheduledTasks(QString* error)
{
    return windows_platform::listTasksAtStart(error);
}

QList<StartupItem> platform::listShellExtensions(QString* error)
{
    return windows_platform::listApprovedExtensions(error);
}

OpResult platform::setRunItemEnabled(StartupSource source, const QString& name, bool enabled)
{
    return windows_platform::switchRunItem(source, name, enabled);
}

} // namespace korvane
