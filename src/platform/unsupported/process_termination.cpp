// Ending processes without a back end.
#include "core/file_unlock_service.h"

namespace korvane {

OpResult FileUnlockService::killProcess(unsigned int /*pid*/)
{
    return {false, QStringLiteral("killProcess 仅支持 Windows")};
}

} // namespace korvane
