// The tool that lists installed software.
#include "tools/handlers.h"

#include "base/watchdog.h"
#include "core/software.h"
#include "tools/tool_support.h"

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QJsonObject toObject(const UninstallEntry& entry)
{
    return {
        {u"display_name"_s, entry.displayName},
        {u"display_version"_s, entry.displayVersion},
        {u"publisher"_s, entry.publisher},
        {u"install_location"_s, entry.installLocation},
        {u"uninstall_string"_s, entry.uninstallString},
        {u"size_kb"_s, entry.estimatedSizeKb},
        {u"size_display"_s, entry.sizeDisplay()},
        {u"source"_s, uninstallSourceLabel(entry.source)},
    };
}

} // namespace

QJsonObject toolListUninstallEntries(const QJsonObject& /*args*/,
                                     const ProgressCallback& /*progress*/)
{
    const Watchdog::Work work;
    return inventory(listAll<UninstallService>(), u"entries"_s, toObject);
}

} // namespace korvane
