// The tools that list startup items and, once the user has agreed, enable or disable one.
#include "tools/handlers.h"

#include "core/startup.h"
#include "tools/tool_support.h"

#include <algorithm>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QJsonObject toObject(const StartupItem& item)
{
    return {
        {u"name"_s, item.name},
        {u"command"_s, item.command},
        {u"exe_path"_s, item.exePath},
        {u"source"_s, startupSourceKey(item.source)},
        {u"source_label"_s, startupSourceLabel(item)},
        {u"source_path"_s, startupSourcePath(item)},
        {u"enabled"_s, item.enabled},
    };
}

StartupSource sourceArgument(const QJsonObject& args)
{
    const QString given = trimmedArgument(args, "source"_L1);
    if (given.isEmpty())
        throwToolError(u"参数 source 必须是 \"hklm\" 或 \"hkcu\""_s);
    const QString source = given.toLower();
    if (source == u"hklm" || source == u"hklm_run" || source == u"系统")
        return StartupSource::hklm;
    if (source == u"hkcu" || source == u"hkcu_run" || source == u"用户")
        return StartupSource::hkcu;
    throwToolError(u"参数 source 非法 (\"%1\"),必须是 \"hklm\" 或 \"hkcu\""_s.arg(given));
}

StartupItem findItem(StartupSource source, const QString& name)
{
    const auto items = Singleton<StartupService>::instance().listAll();
    const auto found = std::find_if(items.cbegin(), items.cend(), [&](const StartupItem& item) {
        return item.source == source && item.name == name;
    });
    if (found == items.cend()) {
        throwToolError(u"找不到启动项 source=%1 name=%2"_s.arg(startupSourceKey(source), name));
    }
    return *found;
}

consent::Request toggleRequest(const StartupItem& item, bool enable, const QString& reason)
{
    const QString summary =
        enable ? u"AI 请求启用启动项「%1」(%2)"_s : u"AI 请求禁用启动项「%1」(%2)"_s;
    return {.action = u"set_startup_item_enabled"_s,
            .title = enable ? u"启用启动项"_s : u"禁用启动项"_s,
            .summary = summary.arg(consent::quotedText(item.name), startupSourceLabel(item)),
            .detail = u"命令: %1\n注册表: %2"_s.arg(consent::shownText(item.command),
                                                    startupSourcePath(item)),
            .reason = reason};
}

} // namespace

QJsonObject toolListStartupItems(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    return inventory(listAll<StartupService>(), u"startup_items"_s, toObject);
}

QJsonObject toolSetStartupItemEnabled(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QString name = trimmedArgument(args, "name"_L1);
    if (name.isEmpty())
        throwToolError(u"参数 name 不能为空"_s);
    const QJsonValue enabled = args.value("enabled"_L1);
    if (!enabled.isBool())
        throwToolError(u"参数 enabled 必须是布尔值"_s);
    const StartupSource source = sourceArgument(args);

    const StartupItem item = findItem(source, name);
    QJsonObject result{{u"changed"_s, item.enabled != enabled.toBool()},
                       {u"source"_s, startupSourceKey(source)},
                       {u"name"_s, name},
                       {u"enabled"_s, enabled}};
    if (item.enabled == enabled.toBool()) {
        result.insert(u"note"_s, u"启动项已是目标状态,无需修改"_s);
        return result;
    }
    requireConsent(toggleRequest(item, enabled.toBool(), textArgument(args, "reason"_L1)));
    const OpResult outcome =
        Singleton<StartupService>::instance().setEnabled(source, name, enabled.toBool());
    if (!outcome.ok)
        throwToolError(outcome.message);
    result.insert(u"message"_s, outcome.message);
    return result;
}

} // namespace korvane
