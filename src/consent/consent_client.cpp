// The client's side of an exchange: connects, sends the request, waits for the answer.
#include "consent/consent_client.h"

#include "consent/consent_exchange.h"
#include "platform/local_channel.h"
#include "platform/peer.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <optional>

namespace korvane::consent {

using namespace Qt::StringLiterals;

namespace {

/// More than any answer has, its line feed included; one that goes on is no answer.
constexpr qsizetype maxReplyBytes = qsizetype{1024} * 1024;

Result refusal(const QString& message)
{
    return {false, message};
}

Result notRunning()
{
    return refusal(u"Korvane 主程序未运行 — 写操作必须经主程序弹窗授权。"
                   "请先启动 Korvane 桌面程序, 再让 AI 执行此操作。"_s);
}

/// Whether the program at the other end may speak for the user: one of the user's own, one of the
/// administrator's, or one of whoever had this program started as the administrator. The socket lives
/// where anyone may have put it.
bool isTrusted(const QLocalSocket& socket)
{
    const auto peer = platform::peerOf(socket.socketDescriptor());
    if (peer && peer->user != platform::PeerUser::Other)
        return true;
    static bool logged = false;
    if (!logged)
        qWarning("[Consent] 授权通道的另一端不属于当前用户, 已忽略");
    logged = true;
    return false;
}

int milliseconds(std::chrono::milliseconds limit)
{
    return static_cast<int>(limit.count());
}

/// Whether all that was written has left within the limit; a single wait ends with the first part.
bool isSent(QLocalSocket& socket, std::chrono::milliseconds limit)
{
    const QDeadlineTimer deadline(limit);
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(static_cast<int>(deadline.remainingTime())))
            return false;
    }
    return true;
}

/// The line of the answer, without its end; none where it stays away or is too long, in however
/// many pieces it comes. Each piece has the whole of the limit.
std::optional<QByteArray> readAnswer(QLocalSocket& socket, std::chrono::milliseconds limit)
{
    QByteArray received = socket.readAll(); // Sending may have received some.
    qsizetype end = received.indexOf('\n');
    while (end < 0 && received.size() < maxReplyBytes) {
        const qsizetype searched = received.size();
        if (!socket.waitForReadyRead(milliseconds(limit)))
            return std::nullopt;
        received += socket.readAll();
        end = received.indexOf('\n', searched);
    }
    if (end < 0 || end >= maxReplyBytes)
        return std::nullopt;
    return received.first(end);
}

} // namespace

Result exchange(const Request& request, const ExchangeLimits& limits)
{
    const auto connection = platform::connectLocally(limits.serverName, limits.connecting);
    if (!connection.socket || !isTrusted(*connection.socket))
        return notRunning();

    QLocalSocket& socket = *connection.socket;
    socket.setReadBufferSize(maxReplyBytes);
    socket.write(encodeRequest(request));
    socket.write("\n");
    if (!isSent(socket, limits.sending))
        return refusal(u"授权请求发送失败。"_s);

    const auto answer = readAnswer(socket, limits.answering);
    if (!answer)
        return refusal(u"用户授权超时 — 已默认拒绝。"_s);
    socket.disconnectFromServer();
    return decodeResult(*answer);
}

Result requestConsent(const Request& request)
{
    return exchange(request, ExchangeLimits());
}

} // namespace korvane::consent
