// The socket by which a second start reaches the first.
#include "desk/doorbell.h"

#include "platform/peer.h"

#include <QLocalSocket>

namespace korvane::desk {

namespace {

constexpr QLatin1StringView socketName{"korvane-desk-show-v1"};

} // namespace

Doorbell::Doorbell()
{
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    connect(&m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* const visitor = m_server.nextPendingConnection())
            visitor->deleteLater();
        Q_EMIT rung();
    });
}

bool Doorbell::listen()
{
    return m_server.listen(socketName);
}

bool Doorbell::ring()
{
    constexpr int waitMs = 1000;
    QLocalSocket socket;
    socket.connectToServer(socketName);
    if (!socket.waitForConnected(waitMs))
        return false;
    const auto peer = platform::peerOf(socket.socketDescriptor());
    return peer && peer->user == platform::PeerUser::Own;
}

} // namespace korvane::desk
