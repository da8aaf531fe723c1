// The tools that list startup items and, once the user has agreed, enable or disable one.
#include "tools/handlers.h"

#include "core/startup.h"
#include "tools/tool_support.h"

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

StartupSource sourceArgument(const QJsonObject& args)
{
    const QString given = trimmedArgument(args, QLatin1String("source"));
    if (given.isEmpty())
        throwToolError(QStringLiteral("参数 source 必须是 \"hklm\" 或 \"hkcu\""));
    const QString source = given.toLower();
    if (source == u"hklm" || source == u"hklm_run" || source == u"系统")
        return StartupSource::hklm;
    if (source == u"hkcu" || source == u"hkcu_run" || source == u"用户")
        return StartupSource::hkcu;
    throwToolError(
        QStringLiteral("参数 source 非法 (\"%1\"),必须是 \"hklm\" 或 \"hkcu\"").arg(given));
}

StartupItem findItem(StartupSource source, const QString& name)
{
    const auto items = Singleton<StartupService>::instance().listAll();
    const auto found = std::find_if(items.cbegin(), items.cend(), [&](const StartupItem& item) {
        return item.source == source && item.name == name;
    });
    if (found == items.cend()) {
        throwToolError(
            QStringLiteral("找不到启动项 source=%1 name=%2").arg(startupSourceKey(source), name));
    }
    return *found;
}

consent::Request toggleRequest(const StartupItem& item, bool enable, const QString& reason)
{
    const QString summary = enable ? QStringLiteral("AI 请求启用启动项「%1」(%2)")
                                   : QStringLiteral("AI 请求禁用启动项「%1」(%2)");
    return {.action = QStringLiteral("set_startup_item_enabled"),
            .title = enable ? QStringLiteral("启用启动项") : QStringLiteral("禁用启动项"),
            .summary = summary.arg(consent::quotedText(item.name), startupSourceLabel(item)),
            .detail = QStringLiteral("命令: %1\n注册表: %2")
                          .arg(consent::shownText(item.command), startupSourcePath(item)),
            .reason = reason};
}

} // namespace

QJsonObject toolListStartupItems(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    return inventory(listAll<StartupService>(), QStringLiteral("startup_items"), toObject);
}

QJsonObject toolSetStartupItemEnabled(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = trimmedArgument(args, QLatin1String("name"));
    if (name.isEmpty())
        throwToolError(QStringLiteral("参数 name 不能为空"));
    const QJsonValue enabled = args.value(QLatin1String("enabled"));
    if (!enabled.isBool())
        throwToolError(QStringLiteral("参数 enabled 必须是布尔值"));
    const StartupSource source = sourceArgument(args);

    const StartupItem item = findItem(source, name);
    QJsonObject result{{QStringLiteral("changed"), item.enabled != enabled.toBool()},
                       {QStringLiteral("source"), startupSourceKey(source)},
                       {QStringLiteral("name"), name},
                       {QStringLiteral("enabled"), enabled}};
    if (item.enabled == enabled.toBool()) {
        result.insert(QStringLiteral("note"), QStringLiteral("启动项已是目标状态,无需修改"));
        return result;
    }
    requireConsent(
        toggleRequest(item, enabled.toBool(), textArgument(args, QLatin1String("reason"))));
    const OpResult outcome =
        Singleton<StartupService>::instance().setEnabled(source, name, enabled.toBool());
    if (!outcome.ok)
        throwToolError(outcome.message);
    result.insert(QStringLiteral("message"), outcome.message);
    return result;
}

} // namespace korvane
