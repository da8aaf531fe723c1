// Which service an order means, of those that the user was shown.
#pragma once

#include "base/op_result.h"

#include <QStringList>

#include <functional>

namespace korvane::platform {

/// What `change` makes of the one service in `shown` that has this name in any letter case, under the
/// name that it was shown by. A failure that says why where none has it, or several do.
OpResult changeShownService(const QString& name, const QStringList& shown,
                            const std::function<OpResult(const QString& shownName)>& change);

} // namespace korvane::platform
