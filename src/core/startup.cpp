// Startup items: the back end's lists, and the automatic services seen as startup items.
#include "core/startup.h"

#include "core/services.h"
#include "platform/startup.h"

namespace korvane {

namespace {

/// What stands between the quotes of a command line that begins with one. A missing or an
/// immediately closing second quote leaves everything after the first.
QString quotedExecutable(const QString& command)
{
    const qsizetype closing = command.indexOf(QLatin1Char('"'), 1);
    return closing >= 2 ? command.mid(1, closing - 1) : command.mid(1);
}

/// The executable of a registered command line. Nothing is expanded or looked for on disk.
QString executableOf(const QString& commandLine)
{
    const QString command = commandLine.trimmed();
    if (command.startsWith(QLatin1Char('"')))
        return quotedExecutable(command);
    const qsizetype blank = command.indexOf(QLatin1Char(' '));
    return blank >= 1 ? command.left(blank) : command;
}

bool startsAutomatically(const ServiceItem& service)
{
    return service.startType == ServiceStartType::Auto ||
           service.startType == ServiceStartType::AutoDelayed;
}

StartupItem startupItemOf(const ServiceItem& service)
{
    StartupItem item;
    item.source = StartupSource::hkcu;
    item.category = StartupCategory::Service;
    item.name = service.displayName.isEmpty() ? service.name : service.displayName;
    item.command = service.binaryPath;
    item.exePath = executableOf(service.binaryPath);
    item.enabled = true;
    return item;
}

} // namespace

QList<StartupItem> StartupService::listAll() const
{
    QString error;
    QList<StartupItem> items = enumPlatform(&error);
    m_lastError = error;
    return items;
}

QList<StartupItem> StartupService::listCategory(StartupCategory category) const
{
    m_lastError.clear();
    switch (category) {
    case StartupCategory::RegistryRun:
        return listAll();
    case StartupCategory::Service:
        return listServices(&m_lastError);
    case StartupCategory::ScheduledTask:
        return enumScheduledTasksPlatform(&m_lastError);
    case StartupCategory::ShellExtension:
        return enumShellExtensionsPlatform(&m_lastError);
    }
    return {};
}

QList<StartupItem> StartupService::listServices(QString* error) const
{
    const ServiceManagerService& manager = Singleton<ServiceManagerService>::instance();
    const QList<ServiceItem> services = manager.listAll();
    if (services.isEmpty() && !manager.lastError().isEmpty() && error != nullptr)
        *error = manager.lastError();

    QList<StartupItem> items;
    for (const ServiceItem& service : services) {
        if (startsAutomatically(service))
            items.append(startupItemOf(service));
    }
    return items;
}

OpResult StartupService::setEnabled(StartupSource source, const QString& name, bool enabled)
{
    if (name.isEmpty())
        return {false, QStringLiteral("启动项名称不能为空")};
    return setEnabledPlatform(source, name, enabled);
}

QList<StartupItem> StartupService::enumPlatform(QString* error) const
{
    return platform::listRunItems(error);
}

QList<StartupItem> StartupService::enumScheduledTasksPlatform(QString* error) const
{
    return platform::listScheduledTasks(error);
}

QList<StartupItem> StartupService::enumShellExtensionsPlatform(QString* error) const
{
    return platform::listShellExtensions(error);
}

OpResult StartupService::setEnabledPlatform(StartupSource source, const QString& name, bool enabled)
{
    return platform::setRunItemEnabled(source, name, enabled);
}

} // namespace korvane
