// Connecting to the channel to see who is there.
#include "consent/listener.h"

#include "consent/protocol.h"
#include "consent/shown_text.h"
#include "platform/local_channel.h"
#include "platform/peer.h"

namespace korvane::consent {

using namespace Qt::StringLiterals;

QString channelPath()
{
    return platform::localAddress(channelName);
}

std::optional<Listener> findListener()
{
    const auto probe = platform::connectLocally(channelName, std::chrono::seconds(1));
    if (!probe.socket)
        return probe.isNobodyThere ? std::nullopt : std::optional(Listener{probe.error});
    const auto peer = platform::peerOf(probe.socket->socketDescriptor());
    if (!peer)
        return Listener{u"PID ?"_s};
    const QString number = u"PID %1"_s.arg(peer->pid);
    const QString name =
        peer->executable.isEmpty() ? number : u"%1 (%2)"_s.arg(shownText(peer->executable), number);
    return Listener{name, peer->user != platform::PeerUser::Other, peer->pid, peer->executable};
}

} // namespace korvane::consent
