// A program that asks the desk, within the test's own event loop.
#pragma once

#include "consent/protocol.h"

#include <QEventLoop>
#include <QLocalSocket>
#include <QTimer>

namespace korvane::test {

using namespace Qt::StringLiterals;

/// A question as good as any other.
inline const consent::Request harmless{u"kill_process"_s, u"标题"_s, u"概要"_s, u"一\n二"_s,
                                       u"理由"_s};

/// One connection to the consent channel.
class AskingClient
{
public:
    AskingClient() { m_socket.connectToServer(consent::channelName); }

    /// A connection that has sent that line.
    explicit AskingClient(const QByteArray& line) : AskingClient()
    {
        m_socket.write(line + '\n');
        m_socket.flush();
    }
    explicit AskingClient(const consent::Request& request)
        : AskingClient(consent::encodeRequest(request))
    {
    }

    void ask(const consent::Request& request)
    {
        m_socket.write(consent::encodeRequest(request) + '\n');
        m_socket.flush();
    }

    bool isConnected() const { return m_socket.state() == QLocalSocket::ConnectedState; }

    void leave() { m_socket.abort(); }

    /// The answer's line; empty where the connection ends without one, or there is none in time.
    QByteArray answerLine()
    {
        QEventLoop loop;
        QTimer::singleShot(5000, &loop, &QEventLoop::quit);
        QObject::connect(&m_socket, &QLocalSocket::readyRead, &loop, &QEventLoop::quit);
        QObject::connect(&m_socket, &QLocalSocket::disconnected, &loop, &QEventLoop::quit);
        if (!m_socket.canReadLine() && isConnected())
            loop.exec();
        return m_socket.readLine();
    }
    consent::Result answer() { return consent::decodeResult(answerLine().trimmed()); }

private:
    QLocalSocket m_socket;
};

} // namespace korvane::test
