// Moves to the recycle bin without a back end.
#include "platform/recycle_bin.h"

namespace korvane {

OpResult platform::moveToRecycleBin(const QList<QString>& /*paths*/)
{
    return {false, QStringLiteral("当前平台不支持回收站删除")};
}

} // namespace korvane
