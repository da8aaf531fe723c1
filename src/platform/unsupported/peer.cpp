// The other end of a local socket, where the platform cannot tell who it is: anybody is trusted.
#include "platform/peer.h"

namespace korvane {

std::optional<platform::Peer> platform::peerOf(qintptr /*socketDescriptor*/)
{
    return Peer{.user = PeerUser::Own, .userId = {}, .executable = {}};
}

bool platform::isSamePath(const QString& path, const QString& other)
{
    return path == other;
}

} // namespace korvane
