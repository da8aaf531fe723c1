// The other end of the consent channel, where the platform cannot tell who it is.
#include "platform/platform.h"

namespace korvane {

bool platform::mayAnswerForUser(qintptr /*socketDescriptor*/)
{
    return true;
}

} // namespace korvane
