// The tool that lists installed software.
#include "tools/handlers.h"

#include "base/watchdog.h"
#include "core/software.h"
#include "tools/tool_support.h"

namespace korvane {

namespace {

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

} // namespace

QJsonObject toolListUninstallEntries(const QJsonObject& /*args*/,
                                     const ProgressCallback& /*progress*/)
{
    const Watchdog::Work work;
    return inventory(listAll<UninstallService>(), QStringLiteral("entries"), toObject);
}

} // namespace korvane
