// The look for a service's name, and its failures, the same for all platforms.
#include "platform/portable/shown_services.h"

#include <algorithm>
#include <iterator>

namespace korvane {

using namespace Qt::StringLiterals;

OpResult
platform::changeShownService(const QString& name, const QStringList& shown,
                             const std::function<OpResult(const QString& shownName)>& change)
{
    QStringList names;
    std::copy_if(
        shown.begin(), shown.end(), std::back_inserter(names),
        [&name](const QString& one) { return one.compare(name, Qt::CaseInsensitive) == 0; });
    if (names.isEmpty())
        return {false, u"找不到服务: %1"_s.arg(name)};
    // Not even the one that is spelled the same: the user was shown the first of them.
    if (names.size() > 1)
        return {false, u"有多个服务的名称只有大小写不同,无法区分: %1"_s.arg(names.join(u", "_s))};
    return change(names.constFirst());
}

} // namespace korvane
