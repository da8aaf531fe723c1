// Desktop operations for graphical hosts, without a back end.
#include "platform/desktop.h"

namespace korvane {

bool platform::setKeepAwake(bool /*on*/)
{
    return false;
}

bool platform::emptyRecycleBin()
{
    return false;
}

bool platform::removeMarkOfTheWeb(const QString& /*path*/)
{
    return false;
}

int platform::toggleForegroundWindowTopmost()
{
    return -1;
}

} // namespace korvane
