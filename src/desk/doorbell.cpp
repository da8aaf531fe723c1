// The socket by which a second start reaches the first.
#include "desk/doorbell.h"

#include "platform/peer.h"

namespace korvane::desk {

namespace {

constexpr QLatin1StringView socketName{"korvane-desk-show-v1"};

} // namespace

bool Doorbell::listen()
{
    QString error;
    const auto ring = [this](const std::unique_ptr<QLocalSocket>& /*visitor*/) { Q_EMIT rung(); };
    m_listener = platform::listenLocally(socketName, ring, error);
    return m_listener != nullptr;
}

bool Doorbell::ring()
{
    const auto visit = platform::connectLocally(socketName, std::chrono::seconds(1));
    if (!visit.socket)
        return false;
    const auto peer = platform::peerOf(visit.socket->socketDescriptor());
    return peer && peer->user == platform::PeerUser::Own;
}

} // namespace korvane::desk
