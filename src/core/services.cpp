// Listing of services, and the checks before a service is changed.
#include "core/services.h"

#include "platform/services.h"

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

OpResult emptyNameRefused()
{
    return {false, u"服务名称不能为空"_s};
}

} // namespace

QList<ServiceItem> ServiceManagerService::listAll() const
{
    QString error;
    QList<ServiceItem> services = enumPlatform(&error);
    m_lastError = error;
    return services;
}

QList<QString> ServiceManagerService::enumDependents(const QString& name) const
{
    return name.isEmpty() ? QList<QString>() : enumDependentsPlatform(name);
}

QList<QString> ServiceManagerService::queryDependencies(const QString& name) const
{
    return name.isEmpty() ? QList<QString>() : queryDependenciesPlatform(name);
}

OpResult ServiceManagerService::startService(const QString& name)
{
    return name.isEmpty() ? emptyNameRefused() : startServicePlatform(name);
}

OpResult ServiceManagerService::stopService(const QString& name)
{
    return name.isEmpty() ? emptyNameRefused() : stopServicePlatform(name);
}

OpResult ServiceManagerService::setEnabled(const QString& name, bool enabled)
{
    return name.isEmpty() ? emptyNameRefused() : setEnabledPlatform(name, enabled);
}

OpResult ServiceManagerService::setStartType(const QString& name, ServiceStartType type)
{
    if (name.isEmpty())
        return emptyNameRefused();
    if (type == ServiceStartType::Boot || type == ServiceStartType::System)
        return {false, u"引导/系统驱动的启动类型不允许从此处修改"_s};
    if (type == ServiceStartType::Unknown)
        return {false, u"无效的启动类型"_s};
    return setStartTypePlatform(name, type);
}

QList<ServiceItem> ServiceManagerService::enumPlatform(QString* error) const
{
    return platform::listServices(m_shownNames, error);
}

QList<QString> ServiceManagerService::enumDependentsPlatform(const QString& name) const
{
    return platform::servicesDependingOn(name);
}

QList<QString> ServiceManagerService::queryDependenciesPlatform(const QString& name) const
{
    return platform::servicesNeededBy(name);
}

OpResult ServiceManagerService::startServicePlatform(const QString& name)
{
    return platform::startService(name, m_shownNames);
}

OpResult ServiceManagerService::stopServicePlatform(const QString& name)
{
    return platform::stopService(name, m_shownNames);
}

OpResult ServiceManagerService::setEnabledPlatform(const QString& name, bool enabled)
{
    return platform::setServiceEnabled(name, enabled, m_shownNames);
}

OpResult ServiceManagerService::setStartTypePlatform(const QString& name, ServiceStartType type)
{
    return platform::setServiceStartType(name, type, m_shownNames);
}

} // namespace korvane
