// Paths without a back end: no path leads out.
#include "platform/paths.h"

namespace korvane {

bool platform::isLocalPath(const QString& /*path*/)
{
    return true;
}

} // namespace korvane
