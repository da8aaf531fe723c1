// The desktop program's side of the consent channel, played by a local server with a thread of its
// own, because a client that asks blocks the test's thread.
#pragma once

#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>
#include <mutex>
#include <utility>

namespace korvane::test {

using namespace Qt::StringLiterals;

inline const QString consentServer = u"korvane-consent-v1"_s;

/// What is sent after a request: nothing, and the connection kept open, when all is empty.
struct DesktopAnswer
{
    QList<QByteArray> pieces;
    bool closes = false;  ///< Ends the connection after the last piece.
    int pauseBetween = 0; ///< Before each piece, in milliseconds.
};

/// Serves one connection after the other, each until it is ended.
class FakeDesktop
{
    Q_DISABLE_COPY_MOVE(FakeDesktop)

public:
    FakeDesktop()
    {
        static const QTemporaryDir directory; // Far from the sockets of a real desktop program.
        qputenv("TMPDIR", directory.path().toLocal8Bit());
        m_thread->start();
        request("pass\n");
    }
    ~FakeDesktop()
    {
        request("stop\n");
        m_thread->wait();
    }

    void setAnswer(const DesktopAnswer& answer)
    {
        const std::scoped_lock lock(m_mutex);
        m_answer = answer;
    }

    /// All bytes of each connection since the last call, once every connection so far has ended.
    QList<QByteArray> takeReceived()
    {
        request("pass\n");
        const std::scoped_lock lock(m_mutex);
        return std::exchange(m_received, {});
    }

private:
    /// Has its turn after all connections before.
    static void request(const char* line)
    {
        QLocalSocket socket;
        do
            socket.connectToServer(consentServer);
        while (!socket.waitForConnected());
        socket.write(line);
        socket.waitForDisconnected(-1);
    }

    void run()
    {
        QLocalServer server;
        server.listen(consentServer);
        QByteArray received;
        while (received != "stop\n" && server.waitForNewConnection(-1)) {
            const std::unique_ptr<QLocalSocket> socket(server.nextPendingConnection());
            const std::scoped_lock lock(m_mutex);
            received = serve(*socket);
            if (received != "pass\n")
                m_received.append(received);
        }
    }

    QByteArray serve(QLocalSocket& socket) const
    {
        QByteArray received;
        while (!received.contains('\n') && socket.waitForReadyRead(-1))
            received += socket.readAll();
        if (received.size() == 5)
            return received;
        for (qsizetype i = 0; received.contains('\n') && i < m_answer.pieces.size(); ++i) {
            QTest::qSleep(m_answer.pauseBetween);
            socket.write(m_answer.pieces.at(i));
            while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(-1))
                continue;
        }
        // Who has a whole line ends the connection; on Windows it would be lost with this end.
        const bool isWhole = !m_answer.pieces.isEmpty() && m_answer.pieces.last().endsWith('\n');
        while ((!m_answer.closes || isWhole) && socket.waitForReadyRead(-1))
            received += socket.readAll();
        return received;
    }

    std::mutex m_mutex; ///< Held while a connection is served.
    DesktopAnswer m_answer;
    QList<QByteArray> m_received;
    std::unique_ptr<QThread> m_thread{QThread::create([this] { run(); })};
};

} // namespace korvane::test
