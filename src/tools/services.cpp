// The tools that list services and, once the user has agreed, start, stop and reconfigure one.
#include "tools/handlers.h"

#include "core/services.h"
#include "tools/tool_support.h"

#include <algorithm>
#include <optional>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QJsonObject toObject(const ServiceItem& service)
{
    return {
        {u"name"_s, service.name},
        {u"display_name"_s, service.displayName},
        {u"description"_s, service.description},
        {u"binary_path"_s, service.binaryPath},
        {u"state"_s, serviceStateLabel(service.state)},
        {u"start_type"_s, serviceStartTypeLabel(service.startType)},
        {u"pid"_s, static_cast<qint64>(service.pid)},
    };
}

ServiceManagerService& manager()
{
    return Singleton<ServiceManagerService>::instance();
}

QString nameArgument(const QJsonObject& args)
{
    QString name = trimmedArgument(args, "name"_L1);
    if (name.isEmpty())
        throwToolError(u"参数 name 不能为空"_s);
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
        throwToolError(u"找不到服务: %1"_s.arg(name));
    return *found;
}

QJsonObject unchanged(const QString& name, const QString& note)
{
    return {{u"changed"_s, false}, {u"name"_s, name}, {u"note"_s, note}};
}

/// The result of a write that the user granted; ends the tool call when it failed.
QJsonObject changed(const QString& name, const OpResult& outcome)
{
    if (!outcome.ok)
        throwToolError(outcome.message);
    return {{u"changed"_s, true}, {u"name"_s, name}, {u"message"_s, outcome.message}};
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
                    .detail = u"二进制路径: %1\n当前状态: %2\n%3"_s.arg(
                        consent::shownText(service.binaryPath), serviceStateLabel(service.state),
                        change.lastLine),
                    .reason = textArgument(args, "reason"_L1)});
    return changed(name, (manager().*change.make)(name));
}

} // namespace

QJsonObject toolListServices(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    const QList<ServiceItem> services = listAll<ServiceManagerService>();
    QJsonObject result = inventory(services, u"entries"_s, toObject);
    result.insert(u"running"_s,
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
    return changeRun({.goal = ServiceState::Running,
                      .action = u"start_service"_s,
                      .title = u"启动服务"_s,
                      .summary = u"AI 请求启动服务「%1」(%2)"_s,
                      .lastLine = u"启动类型: %1"_s.arg(serviceStartTypeLabel(service.startType)),
                      .note = u"服务已在运行"_s,
                      .make = &ServiceManagerService::startService},
                     name, service, args);
}

QJsonObject toolStopService(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = nameArgument(args);
    return changeRun({.goal = ServiceState::Stopped,
                      .action = u"stop_service"_s,
                      .title = u"停止服务"_s,
                      .summary = u"AI 请求停止服务「%1」(%2)"_s,
                      .lastLine = u"依赖此服务的功能可能失效。"_s,
                      .note = u"服务已停止"_s,
                      .make = &ServiceManagerService::stopService},
                     name, findService(name), args);
}

QJsonObject toolSetServiceStartType(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = nameArgument(args);
    const QString given = trimmedArgument(args, "start_type"_L1);
    const auto type = startTypeFrom(given.toLower());
    if (!type) {
        throwToolError(u"参数 start_type 非法 (\"%1\"),必须是 "
                       "auto/auto_delayed/manual/disabled"_s.arg(given));
    }
    const ServiceItem service = findService(name);
    QJsonObject result;
    if (service.startType == *type) {
        result = unchanged(name, u"启动类型已是目标值"_s);
    } else {
        requireConsent({.action = u"set_service_start_type"_s,
                        .title = u"设服务启动类型"_s,
                        .summary = u"AI 请求把服务「%1」启动类型从「%2」改为「%3」"_s.arg(
                            consent::quotedText(service.displayName),
                            serviceStartTypeLabel(service.startType), serviceStartTypeLabel(*type)),
                        .detail = u"服务名: %1\n二进制路径: %2\n(下次启动生效)"_s.arg(
                            consent::shownText(name), consent::shownText(service.binaryPath)),
                        .reason = textArgument(args, "reason"_L1)});
        result = changed(name, manager().setStartType(name, *type));
    }
    result.insert(u"start_type"_s, given);
    return result;
}

} // namespace korvane
