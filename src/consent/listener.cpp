// Connecting to the channel to see who is there.
#include "consent/listener.h"

#include "consent/protocol.h"
#include "consent/shown_text.h"
#include "platform/peer.h"

#include <QDir>
#include <QLocalSocket>

namespace korvane::consent {

using namespace Qt::StringLiterals;

QString channelPath()
{
    return QDir::cleanPath(QDir::tempPath()) + u'/' + channelName;
}

std::optional<Listener> findListener()
{
    constexpr int waitMs = 1000;
    QLocalSocket probe;
    probe.connectToServer(channelName);
    if (!probe.waitForConnected(waitMs)) {
        const auto error = probe.error();
        const bool isNobody = error == QLocalSocket::ConnectionRefusedError ||
                              error == QLocalSocket::ServerNotFoundError;
        return isNobody ? std::nullopt : std::optional(Listener{probe.errorString()});
    }
    const auto peer = platform::peerOf(probe.socketDescriptor());
    if (!peer)
        return Listener{u"PID ?"_s};
    const QString number = u"PID %1"_s.arg(peer->pid);
    const QString name =
        peer->executable.isEmpty() ? number : u"%1 (%2)"_s.arg(shownText(peer->executable), number);
    return Listener{name, peer->user != platform::PeerUser::Other};
}

} // namespace korvane::consent
