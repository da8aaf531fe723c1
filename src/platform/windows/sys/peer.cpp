// Who is at the other end of a named pipe.
#include "platform/peer.h"

namespace korvane {

std::optional<platform::Peer> platform::peerOf(qintptr /*socketDescriptor*/)
{
    return std::nullopt;
}

} // namespace korvane
