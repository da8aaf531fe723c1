// The tools that list services and, once the user has agreed, start, stop and reconfigure one.
#include "tools/handlers.h"

#include "core/services.h"
#include "tools/tool_support.h"

#include <algorithm>
#include <optional>

namespace korvane {

namespace {

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

ServiceManagerService& manager()
{
    return Singleton<ServiceManagerService>::instance();
}

QString nameArgument(const QJsonObject& args)
{
    QString name = trimmedArgument(args, QLatin1String("name"));
    if (name.isEmpty())
        throwToolError(QStringLiteral("参数 name 不能为空"));
    return name;
}

std::optional<ServiceStartType> startTypeFrom(const QString& text)
{
    if (text == u"auto")
        return ServiceStartType::Auto;
    if (text == u"auto_delayed" || text == u"auto-delayed" || text == u"delayed")
        return ServiceStartType::AutoDelayed;
    if (text == u"manual" || text == u"demand")
        return ServiceStartType::Manual;
    if (text == u"disabled")
        return ServiceStartType::Disabled;
    return std::nullopt;
}

ServiceItem findService(const QString& name)
{
    const auto services = manager().listAll();
    const auto found =
        std::find_if(services.cbegin(), services.cend(), [&name](const ServiceItem& service) {
            return service.name.compare(name, Qt::CaseInsensitive) == 0;
        });
    if (found == services.cend())
        throwToolError(QStringLiteral("找不到服务: %1").arg(name));
    return *found;
}

QJsonObject unchanged(const QString& name, const QString& note)
{
    return {{QStringLiteral("changed"), false},
            {QStringLiteral("name"), name},
            {QStringLiteral("note"), note}};
}

/// The result of a write that the user granted; ends the tool call when it failed.
QJsonObject changed(const QString& name, const OpResult& outcome)
{
    if (!outcome.ok)
        throwToolError(outcome.message);
    return {{QStringLiteral("changed"), true},
            {QStringLiteral("name"), name},
            {QStringLiteral("message"), outcome.message}};
}

/// Starting or stopping, as the dialog and the answer put it.
struct RunChange
{
    ServiceState goal = ServiceState::Unknown;
    QString action;
    QString title;
    QString summary;  ///< Of the shown name and the key name.
    QString lastLine; ///< Of the detail.
    QString note;     ///< Where the service is in that state already.
    OpResult (ServiceManagerService::*make)(const QString& name) = nullptr;
};

QJsonObject changeRun(const RunChange& change, const QString& name, const ServiceItem& service,
                      const QJsonObject& args)
{
    if (service.state == change.goal)
        return unchanged(name, change.note);
    requireConsent({.action = change.action,
                    .title = change.title,
                    .summary = change.summary.arg(consent::quotedText(service.displayName),
                                                  consent::quotedText(name)),
                    .detail = QStringLiteral("二进制路径: %1\n当前状态: %2\n%3")
                                  .arg(consent::shownText(service.binaryPath),
                                       serviceStateLabel(service.state), change.lastLine),
                    .reason = textArgument(args, QLatin1String("reason"))});
    return changed(name, (manager().*change.make)(name));
}

} // namespace

QJsonObject toolListServices(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const QList<ServiceItem> services = listAll<ServiceManagerService>();
    QJsonObject result = inventory(services, QStringLiteral("entries"), toObject);
    result.insert(QStringLiteral("running"),
                  static_cast<qint64>(std::count_if(
                      services.cbegin(), services.cend(), [](const ServiceItem& service) {
                          return service.state == ServiceState::Running;
                      })));
    return result;
}

QJsonObject toolStartService(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = nameArgument(args);
    const ServiceItem service = findService(name);
    return changeRun(
        {.goal = ServiceState::Running,
         .action = QStringLiteral("start_service"),
         .title = QStringLiteral("启动服务"),
         .summary = QStringLiteral("AI 请求启动服务「%1」(%2)"),
         .lastLine = QStringLiteral("启动类型: %1").arg(serviceStartTypeLabel(service.startType)),
         .note = QStringLiteral("服务已在运行"),
         .make = &ServiceManagerService::startService},
        name, service, args);
}

QJsonObject toolStopService(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = nameArgument(args);
    return changeRun({.goal = ServiceState::Stopped,
                      .action = QStringLiteral("stop_service"),
                      .title = QStringLiteral("停止服务"),
                      .summary = QStringLiteral("AI 请求停止服务「%1」(%2)"),
                      .lastLine = QStringLiteral("依赖此服务的功能可能失效。"),
                      .note = QStringLiteral("服务已停止"),
                      .make = &ServiceManagerService::stopService},
                     name, findService(name), args);
}

QJsonObject toolSetServiceStartType(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = nameArgument(args);
    const QString given = trimmedArgument(args, QLatin1String("start_type"));
    const auto type = startTypeFrom(given.toLower());
    if (!type) {
        throwToolError(QStringLiteral("参数 start_type 非法 (\"%1\"),必须是 "
                                      "auto/auto_delayed/manual/disabled")
                           .arg(given));
    }
    const ServiceItem service = findService(name);
    QJsonObject result;
    if (service.startType == *type) {
        result = unchanged(name, QStringLiteral("启动类型已是目标值"));
    } else {
        requireConsent(
            {.action = QStringLiteral("set_service_start_type"),
             .title = QStringLiteral("设服务启动类型"),
             .summary =
                 QStringLiteral("AI 请求把服务「%1」启动类型从「%2」改为「%3」")
                     .arg(consent::quotedText(service.displayName),
                          serviceStartTypeLabel(service.startType), serviceStartTypeLabel(*type)),
             .detail = QStringLiteral("服务名: %1\n二进制路径: %2\n(下次启动生效)")
                           .arg(consent::shownText(name), consent::shownText(service.binaryPath)),
             .reason = textArgument(args, QLatin1String("reason"))});
        result = changed(name, manager().setStartType(name, *type));
    }
    result.insert(QStringLiteral("start_type"), given);
    return result;
}

} // namespace korvane
