// Removal of installed software without a back end.
#include "platform/software.h"

namespace korvane {

using namespace Qt::StringLiterals;

OpResult platform::uninstallSoftware(const UninstallEntry& /*entry*/)
{
    return {false, u"当前平台不支持执行卸载"_s};
}

} // namespace korvane
