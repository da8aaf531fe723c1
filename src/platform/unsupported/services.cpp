// Services without a back end.
#include "platform/services.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

OpResult notSupported()
{
    return {false, u"当前平台不支持服务管理"_s};
}

} // namespace

QList<ServiceItem> platform::listServices(QStringList& /*shown*/, QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[ServiceManagerService] 当前平台不支持服务枚举");
    return unsupported::failedListing<ServiceItem>(error, notSupported().message);
}

QList<QString> platform::servicesDependingOn(const QString& /*name*/)
{
    return {};
}

QList<QString> platform::servicesNeededBy(const QString& /*name*/)
{
    return {};
}

OpResult platform::startService(const QString& /*name*/, const QStringList& /*shown*/)
{
    return notSupported();
}

OpResult platform::stopService(const QString& /*name*/, const QStringList& /*shown*/)
{
    return notSupported();
}

OpResult platform::setServiceEnabled(const QString& /*name*/, bool /*enabled*/,
                                     const QStringList& /*shown*/)
{
    return notSupported();
}

OpResult platform::setServiceStartType(const QString& /*name*/, ServiceStartType /*type*/,
                                       const QStringList& /*shown*/)
{
    return notSupported();
}

} // namespace korvane
