// Moves to the recycle bin without a back end.
#include "platform/recycle_bin.h"

namespace korvane {

using namespace Qt::StringLiterals;

OpResult platform::moveToRecycleBin(const QList<QString>& /*paths*/)
{
    return {false, u"当前平台不支持回收站删除"_s};
}

} // namespace korvane
