// Local sockets as the framework has them.
#include "platform/local_channel.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>

#include <utility>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

class FrameworkListener final : public platform::LocalListener
{
public:
    explicit FrameworkListener(platform::TakeConnection take) : m_take(std::move(take))
    {
        constexpr int backlog = 128;
        m_server.setListenBacklogSize(backlog);
        m_server.setSocketOptions(QLocalServer::UserAccessOption);
        QObject::connect(&m_server, &QLocalServer::newConnection, &m_server, [this] { accept(); });
    }

    /// Empty, or why not.
    QString listen(const QString& name)
    {
        if (!m_server.listen(name))
            return m_server.errorString();
        if (platform::areLocalSocketsFiles()) {
            QFile::setPermissions(address(), QFile::ReadOwner | QFile::WriteOwner);
            m_madeAt = QFileInfo(address()).lastModified();
        }
        return {};
    }

    QString address() const override { return m_server.fullServerName(); }

    bool isReachable() const override
    {
        return m_server.isListening() &&
               (!m_madeAt.isValid() || QFileInfo(address()).lastModified() == m_madeAt);
    }

private:
    void accept()
    {
        while (QLocalSocket* const socket = m_server.nextPendingConnection()) {
            socket->setParent(nullptr);
            m_take(std::unique_ptr<QLocalSocket>(socket));
        }
    }

    platform::TakeConnection m_take;
    QLocalServer m_server;
    QDateTime m_madeAt; ///< By which its file is known again.
};

} // namespace

bool platform::areLocalSocketsFiles()
{
    return QSysInfo::kernelType() != u"winnt";
}

QString platform::localAddress(const QString& name)
{
    const QString directory =
        areLocalSocketsFiles() ? QDir::cleanPath(QDir::tempPath()) + u'/' : uR"(\\.\pipe\)"_s;
    return directory + name;
}

std::unique_ptr<platform::LocalListener>
platform::listenLocally(const QString& name, TakeConnection take, QString& error)
{
    auto listener = std::make_unique<FrameworkListener>(std::move(take));
    error = listener->listen(name);
    return error.isEmpty() ? std::move(listener) : nullptr;
}

platform::LocalConnection platform::connectLocally(const QString& name,
                                                   std::chrono::milliseconds limit)
{
    auto socket = std::make_unique<QLocalSocket>();
    socket->connectToServer(name);
    if (socket->waitForConnected(static_cast<int>(limit.count())))
        return {std::move(socket), false, {}};
    const auto error = socket->error();
    const bool isNobody =
        error == QLocalSocket::ConnectionRefusedError || error == QLocalSocket::ServerNotFoundError;
    return {nullptr, isNobody, socket->errorString()};
}

bool platform::isStillConnected(QLocalSocket& socket)
{
    // What has arrived by now, its end included, fits into few readings.
    constexpr int maxReadings = 8;
    for (int i = 0; i < maxReadings && socket.state() == QLocalSocket::ConnectedState; ++i) {
        if (!socket.waitForReadyRead(0))
            break;
    }
    return socket.state() == QLocalSocket::ConnectedState;
}

bool platform::sendAndEnd(std::unique_ptr<QLocalSocket> socket, const QByteArray& bytes)
{
    socket->write(bytes);
    socket->flush();
    const bool isTaken =
        socket->state() == QLocalSocket::ConnectedState && socket->bytesToWrite() == 0;
    QLocalSocket* const ended = socket.release(); // One of its signals may have led here.
    ended->abort();
    ended->setParent(qApp); // Who deletes it where no event loop follows.
    ended->deleteLater();
    return isTaken;
}

} // namespace korvane
