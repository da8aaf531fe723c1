// Removal of installed software without a back end.
#include "core/uninstall_service.h"

namespace korvane {

OpResult UninstallService::executeUninstallPlatform(const UninstallEntry& /*entry*/)
{
    return {false, QStringLiteral("当前平台不支持执行卸载")};
}

} // namespace korvane
