// The tools that list an inventory as it is: startup items, installed software, services.
#include "tools/handlers.h"

#include "core/service_manager_service.h"
#include "core/startup_service.h"
#include "core/uninstall_service.h"
#include "tools/tool_support.h"

#include <QJsonArray>

#include <algorithm>

namespace korvane {

namespace {

QJsonObject toObject(const StartupItem& item)
{
    return {
        {QStringLiteral("name"), item.name},
        {QStringLiteral("command"), item.command},
        {QStringLiteral("exe_path"), item.exePath},
        {QStringLiteral("source"), startupSourceKey(item.source)},
        {QStringLiteral("source_label"), startupSourceLabel(item)},
        {QStringLiteral("source_path"), startupSourcePath(item)},
        {QStringLiteral("enabled"), item.enabled},
    };
}

QJsonObject toObject(const UninstallEntry& entry)
{
    return {
        {QStringLiteral("display_name"), entry.displayName},
        {QStringLiteral("display_version"), entry.displayVersion},
        {QStringLiteral("publisher"), entry.publisher},
        {QStringLiteral("install_location"), entry.installLocation},
        {QStringLiteral("uninstall_string"), entry.uninstallString},
        {QStringLiteral("size_kb"), entry.estimatedSizeKb},
        {QStringLiteral("size_display"), entry.sizeDisplay()},
        {QStringLiteral("source"), uninstallSourceLabel(entry.source)},
    };
}

QJsonObject toObject(const ServiceItem& service)
{
    return {
        {QStringLiteral("name"), service.name},
        {QStringLiteral("display_name"), service.displayName},
        {QStringLiteral("description"), service.description},
        {QStringLiteral("binary_path"), service.binaryPath},
        {QStringLiteral("state"), serviceStateLabel(service.state)},
        {QStringLiteral("start_type"), serviceStartTypeLabel(service.startType)},
        {QStringLiteral("pid"), static_cast<qint64>(service.pid)},
    };
}

/// "total" and, under `key`, an object a record.
template <typename Record> QJsonObject inventory(const QList<Record>& records, const QString& key)
{
    QJsonArray objects;
    for (const Record& record : records)
        objects.append(toObject(record));
    return {{QStringLiteral("total"), objects.size()}, {key, objects}};
}

} // namespace

QJsonObject toolListStartupItems(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    return inventory(listAll<StartupService>(), QStringLiteral("startup_items"));
}

QJsonObject toolListUninstallEntries(const QJsonObject& /*args*/,
                                     const ProgressCallback& /*progress*/)
{
    return inventory(listAll<UninstallService>(), QStringLiteral("entries"));
}

QJsonObject toolListServices(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const QList<ServiceItem> services = listAll<ServiceManagerService>();
    QJsonObject result = inventory(services, QStringLiteral("entries"));
    result.insert(QStringLiteral("running"),
                  static_cast<qint64>(std::count_if(
                      services.cbegin(), services.cend(), [](const ServiceItem& service) {
                          return service.state == ServiceState::Running;
                      })));
    return result;
}

} // namespace korvane
