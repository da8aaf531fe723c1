// Process command lines without a back end: always empty.
#include "platform/platform.h"

namespace korvane {

QString platform::processCommandLine(unsigned int /*pid*/)
{
    return {};
}

} // namespace korvane
