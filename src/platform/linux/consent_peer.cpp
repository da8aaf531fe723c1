// Who is at the other end of the consent channel, by the credentials that the kernel vouches for.
#include "platform/platform.h"

#include "platform/linux/text.h"

#include <sys/socket.h>
#include <unistd.h>

namespace korvane {

bool platform::mayAnswerForUser(qintptr socketDescriptor)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    const int fd = static_cast<int>(socketDescriptor);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || size != sizeof peer)
        return false;
    const uid_t self = ::geteuid();
    if (peer.uid == self || peer.uid == 0)
        return true;
    uid_t invoker = 0;
    return self == 0 && linux_platform::parseNumber(qgetenv("SUDO_UID"), invoker) &&
           peer.uid == invoker;
}

} // namespace korvane
