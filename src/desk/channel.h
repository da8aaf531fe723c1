// The desk's end of the consent channel: connections, and the requests that they bring.
#pragma once

#include "base/op_result.h"
#include "consent/protocol.h"
#include "platform/local_channel.h"
#include "platform/peer.h"

#include <QLockFile>
#include <QObject>

#include <chrono>
#include <functional>
#include <map>
#include <memory>

namespace korvane::desk {

/// Listens for this program's own user. Each connection has an id, never used twice, also not by a
/// later start. Requests of strangers are not read. Main thread only.
class Channel : public QObject
{
    Q_OBJECT

public:
    using SteadyClock = std::function<std::chrono::milliseconds()>;

    explicit Channel(SteadyClock clock);
    ~Channel() override;
    Q_DISABLE_COPY_MOVE(Channel)

    /// Listens, unless somebody does already. Not ok, with what to do about it in the person's
    /// language: another desk or program has the channel, or the socket is somebody else's.
    OpResult open();

    /// Ends all connections with that answer, and listens no more.
    void close(const consent::Result& farewell);

    /// Whether it listens, and who connects still comes here.
    bool isOpen() const;

    /// Where the channel is, listening or not.
    QString path() const;

    /// The PID of the korvane-desk that had the channel at the last open(); else 0.
    qint64 otherDesk() const { return m_otherDesk; }

    /// Whether the asker is there; as of now, not of the last event.
    bool isConnected(quint64 id);

    /// Sends the answer and ends the connection. True when the system has taken all of it over for an
    /// asker who was there.
    bool answer(quint64 id, const consent::Result& result);

    /// Gives up on requests that have not arrived in time.
    void dropSlow();

    static constexpr qsizetype maxRequestBytes = qsizetype{256} * 1024;
    /// Connections whose request has not arrived yet; for a further one, the oldest is given up.
    static constexpr std::ptrdiff_t maxSending = 64;
    static constexpr std::chrono::seconds sendingLimit{5};

Q_SIGNALS:
    void asked(quint64 id, const korvane::platform::Peer& peer,
               const korvane::consent::Request& request);
    /// What came is no request: `fault` says why, in Chinese. It awaits an answer all the same.
    void garbled(quint64 id, const korvane::platform::Peer& peer, const QString& fault);
    /// The asker has closed the connection, or its own direction of it, before an answer.
    void left(quint64 id);

private:
    struct Connection
    {
        std::unique_ptr<QLocalSocket> socket;
        platform::Peer peer;
        std::chrono::milliseconds since;
        QByteArray received;
        bool isTooLong = false;
        bool hasAsked = false; ///< Its sending has ended: it waits for the answer.
    };
    /// Why nobody may listen here now; empty when nothing is in the way.
    QString obstacle();
    /// The same of the files that are beside or in the place of a socket that is one.
    QString obstacleAmongFiles();
    void accept(std::unique_ptr<QLocalSocket> socket);
    /// Takes the connection out of the list, for good.
    std::unique_ptr<QLocalSocket> release(quint64 id);
    void read(quint64 id);
    void finish(quint64 id, Connection& connection, QString fault);
    void giveUpOldest();
    void lose(quint64 id);

    SteadyClock m_clock;
    std::unique_ptr<platform::LocalListener> m_listener;
    std::unique_ptr<QLockFile> m_lock;
    qint64 m_otherDesk = 0;
    quint64 m_lastId;
    std::map<quint64, Connection> m_connections; ///< Oldest first.
};

} // namespace korvane::desk
