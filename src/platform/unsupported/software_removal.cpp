// Removal of installed software without a back end.
#include "platform/software.h"

namespace korvane {

OpResult platform::uninstallSoftware(const UninstallEntry& /*entry*/)
{
    return {false, QStringLiteral("当前平台不支持执行卸载")};
}

} // namespace korvane
