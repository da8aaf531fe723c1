// A program that asks the desk, within the test's own event loop.
#pragma once

#include "consent/protocol.h"

#include <QFile>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTestEventLoop>

namespace korvane::test {

using namespace Qt::StringLiterals;

/// A question as good as any other.
inline const consent::Request harmless{u"kill_process"_s, u"标题"_s, u"概要"_s, u"一\n二"_s,
                                       u"理由"_s};

/// The directory in which the desk and who asks it meet, while it lives.
class OwnTmp : public QTemporaryDir
{
public:
    OwnTmp() { qputenv("TMPDIR", QFile::encodeName(path())); }
    ~OwnTmp() { qunsetenv("TMPDIR"); }
    Q_DISABLE_COPY_MOVE(OwnTmp)
};

/// One connection to the consent channel.
class AskingClient
{
public:
    AskingClient() { m_socket.connectToServer(consent::channelName); }
    explicit AskingClient(const QByteArray& line) : AskingClient() { send(line); }
    explicit AskingClient(const consent::Request& request) : AskingClient() { ask(request); }

    void ask(const consent::Request& request) { send(consent::encodeRequest(request)); }
    void send(const QByteArray& line)
    {
        m_socket.write(line + '\n');
        m_socket.flush();
    }

    bool isConnected() const { return m_socket.state() == QLocalSocket::ConnectedState; }

    /// Whether anything has come by now that had not when the event loop last ran.
    bool hears() { return m_socket.waitForReadyRead(0); }

    void leave() { m_socket.abort(); }

    /// The answer's line; empty where the connection ends without one, or there is none in time.
    QByteArray answerLine()
    {
        QTestEventLoop loop;
        QObject::connect(&m_socket, &QLocalSocket::readyRead, &loop, &QTestEventLoop::exitLoop);
        QObject::connect(&m_socket, &QLocalSocket::disconnected, &loop, &QTestEventLoop::exitLoop);
        while (!m_socket.canReadLine() && isConnected() && !loop.timeout())
            loop.enterLoop(5);
        return m_socket.readLine();
    }
    consent::Result answer() { return consent::decodeResult(answerLine().trimmed()); }

private:
    QLocalSocket m_socket;
};

} // namespace korvane::test
