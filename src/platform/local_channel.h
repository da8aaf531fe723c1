// Local sockets, by which programs of one user meet under a name.
#pragma once

#include <QLocalSocket>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>

namespace korvane::platform {

/// Whether a local socket is a file, which others can make, remove or lock, and whose directory the
/// environment chooses. Any thread. Linux: true. Windows: false; the name is the whole machine's.
bool areLocalSocketsFiles();

/// Where the socket of that name is, as people read it, whether anybody listens there or not. Any thread.
/// Linux: its path in the directory for temporary files (TMPDIR). Windows: "\\.\pipe\NAME".
QString localAddress(const QString& name);

/// Listens as long as it lives.
class LocalListener
{
public:
    virtual ~LocalListener() = default;

    /// Its localAddress(), as that was when it began.
    virtual QString address() const = 0;

    /// Whether who connects to that address still comes here.
    virtual bool isReachable() const = 0;

protected:
    LocalListener() = default;
    LocalListener(const LocalListener&) = default;
    LocalListener& operator=(const LocalListener&) = default;
    LocalListener(LocalListener&&) = default;
    LocalListener& operator=(LocalListener&&) = default;
};

/// Takes one connection.
using TakeConnection = std::function<void(std::unique_ptr<QLocalSocket>)>;

/// Listens under a name for this program's own user, on this machine; the event loop hands each
/// connection to `take`. Of many that connect at once, none is turned away. Null, and why in `error`,
/// where that cannot be had. Main thread only; needs the application object.
/// Linux: a socket of mode 0600, which takes the place of any other at that path: who is there is to be
/// looked for before. Windows: CreateNamedPipeW, which fails where anybody has the name; only the user's
/// own SID may connect, and nobody over the network.
std::unique_ptr<LocalListener> listenLocally(const QString& name, TakeConnection take,
                                             QString& error);

/// How connecting ended.
struct LocalConnection
{
    std::unique_ptr<QLocalSocket> socket; ///< Connected; null where it is not.
    bool isNobodyThere = false;           ///< Nobody listens under that name.
    QString error;                        ///< Why it is not connected.
};

/// Connects to who listens under that name, for which it waits up to `limit`, without an event loop. Who
/// that is has yet to be told, by peerOf(). Any thread.
/// Linux: connect(2). Windows: CreateFileW at the identification level, so that who listens may learn
/// who this is, not act as it; WaitNamedPipeW while all instances are taken.
LocalConnection connectLocally(const QString& name, std::chrono::milliseconds limit);

/// Whether the other end is there as of now, not of the last event; what has come is read, and an end is
/// told by the socket's signals. Thread of the socket.
/// Linux: reads what there is. Windows: PeekNamedPipe.
bool isStillConnected(QLocalSocket& socket);

/// Sends the last bytes of a connection and ends it, waiting for nobody to read them. True when the
/// system has taken all of them over for somebody who was there. The socket deletes itself.
/// Linux: what is unread stays for the other end. Windows: at most a moment for WriteFile; the pipe is
/// left once the other has, or after 5 s, as what is unread goes with it.
bool sendAndEnd(std::unique_ptr<QLocalSocket> socket, const QByteArray& bytes);

} // namespace korvane::platform
