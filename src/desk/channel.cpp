// Listening without taking anybody's place, and reading requests within their limits.
#include "desk/channel.h"

#include "consent/listener.h"
#include "desk/lock.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>

#include <algorithm>
#include <utility>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

QString translated(const char* text)
{
    return QCoreApplication::translate("desk", text);
}

bool isTrusted(const platform::Peer& peer)
{
    return peer.user == platform::PeerUser::Own || peer.user == platform::PeerUser::System;
}

/// The name of whom a file belongs to; the number of a user without one.
QString ownerOf(const QFileInfo& file)
{
    return file.owner().isEmpty() ? QString::number(file.ownerId()) : file.owner();
}

/// What to do about somebody else's file in the place of one's own.
QString strangersFile(const QFileInfo& file)
{
    return translated(QT_TRANSLATE_NOOP("desk",
                                        "%1 属于用户 %2。请让其删除, 或为授权台和客户端设置同一个"
                                        "属于自己的 TMPDIR。"))
        .arg(file.filePath(), ownerOf(file));
}

} // namespace

Channel::Channel(SteadyClock clock)
    : m_clock(std::move(clock)),
      m_lastId(static_cast<quint64>(QDateTime::currentMSecsSinceEpoch()) * 1000)
{
}

Channel::~Channel()
{
    close({});
}

QString Channel::path() const
{
    return m_listener ? m_listener->address() : consent::channelPath();
}

bool Channel::isOpen() const
{
    return m_listener && m_listener->isReachable();
}

OpResult Channel::open()
{
    if (isOpen())
        return {true, {}};
    if (const QString inTheWay = obstacle(); !inTheWay.isEmpty())
        return {false, inTheWay};
    m_listener.reset(); // Where it lost its socket. Whatever has its name by now goes with it.
    QString error;
    m_listener = platform::listenLocally(
        consent::channelName,
        [this](std::unique_ptr<QLocalSocket> socket) { accept(std::move(socket)); }, error);
    if (!m_listener)
        return {false, translated(QT_TRANSLATE_NOOP("desk", "无法监听 %1: %2")).arg(path(), error)};
    return {true, {}};
}

QString Channel::obstacle()
{
    m_otherDesk = 0;
    if (platform::areLocalSocketsFiles()) {
        if (QString inTheWay = obstacleAmongFiles(); !inTheWay.isEmpty())
            return inTheWay;
    }
    const auto other = consent::findListener();
    if (!other)
        return {};
    if (!platform::isSamePath(other->executable, QCoreApplication::applicationFilePath()))
        return translated(QT_TRANSLATE_NOOP("desk", "%1 已由另一个程序占用: %2。"))
            .arg(path(), other->name);
    m_otherDesk = other->pid;
    return translated(
               QT_TRANSLATE_NOOP("desk", "%1 已由另一个授权台占用: %2。请在那里答复或先退出它。"))
        .arg(path(), other->name);
}

QString Channel::obstacleAmongFiles()
{
    const QString lockPath = path() + u".lock"_s;
    if (!m_lock)
        m_lock = takeLock(lockPath, m_otherDesk);
    const QFileInfo lock(lockPath);
    if (m_otherDesk != 0)
        return translated(QT_TRANSLATE_NOOP(
                              "desk",
                              "%1 已由另一个授权台占用 (PID %2, 用户 %3)。请在那里答复或先退出它; "
                              "若它属于别人, 请为授权台和客户端设置同一个属于自己的 TMPDIR。"))
            .arg(path(), QString::number(m_otherDesk), ownerOf(lock));
    if (!m_lock && lock.exists())
        return strangersFile(lock);
    if (!m_lock)
        return translated(
                   QT_TRANSLATE_NOOP("desk",
                                     "无法创建 %1。请检查该目录的权限, 或为授权台和客户端设置同一个"
                                     "可写的 TMPDIR。"))
            .arg(lockPath);
    const QFileInfo socket(path());
    if (socket.isFile() || socket.isDir() || socket.isSymLink())
        return translated(QT_TRANSLATE_NOOP("desk", "%1 不是套接字, 请先移走它。")).arg(path());
    if (socket.exists() && socket.ownerId() != lock.ownerId())
        return strangersFile(socket);
    return {};
}

void Channel::close(const consent::Result& farewell)
{
    while (!m_connections.empty())
        answer(m_connections.begin()->first, farewell);
    m_listener.reset();
    m_lock.reset();
}

void Channel::accept(std::unique_ptr<QLocalSocket> socket)
{
    const auto peer = platform::peerOf(socket->socketDescriptor());
    if (!peer || !isTrusted(*peer))
        return;
    const quint64 id = ++m_lastId;
    socket->setReadBufferSize(maxRequestBytes);
    connect(socket.get(), &QLocalSocket::readyRead, this, [this, id] { read(id); });
    connect(socket.get(), &QLocalSocket::disconnected, this, [this, id] { lose(id); });
    m_connections.emplace(id, Connection{std::move(socket), *peer, m_clock(), {}});
    giveUpOldest();
}

void Channel::giveUpOldest()
{
    const auto isSending = [](const auto& entry) { return !entry.second.hasAsked; };
    if (std::count_if(m_connections.begin(), m_connections.end(), isSending) <= maxSending)
        return;
    const auto oldest = std::find_if(m_connections.begin(), m_connections.end(), isSending);
    finish(oldest->first, oldest->second, u"同时发送的请求过多"_s);
}

void Channel::dropSlow()
{
    const auto isLate = [this](const auto& entry) {
        return !entry.second.hasAsked && m_clock() - entry.second.since >= sendingLimit;
    };
    for (;;) {
        const auto late = std::find_if(m_connections.begin(), m_connections.end(), isLate);
        if (late == m_connections.end())
            return;
        finish(late->first, late->second, u"请求未在 5 秒内送达"_s);
    }
}

/// What does not fit is read all the same: a client whose sending fails never hears why.
void Channel::read(quint64 id)
{
    const auto found = m_connections.find(id);
    if (found == m_connections.end())
        return;
    Connection& connection = found->second;
    const QByteArray piece = connection.socket->readAll();
    if (connection.hasAsked)
        return;
    const qsizetype end = piece.indexOf('\n');
    const QByteArrayView line = QByteArrayView(piece).first(end < 0 ? piece.size() : end);
    const qsizetype room = maxRequestBytes - connection.received.size();
    connection.isTooLong = connection.isTooLong || line.size() > room;
    connection.received.append(line.first(std::min(line.size(), room)));
    if (end >= 0)
        finish(id, connection, connection.isTooLong ? u"超过 256 KiB"_s : QString());
}

/// The end of the sending, after which only the answer is due.
void Channel::finish(quint64 id, Connection& connection, QString fault)
{
    connection.hasAsked = true;
    const QByteArray line = std::exchange(connection.received, {});
    const platform::Peer peer = connection.peer; // The connection may end while others hear of it.
    const auto request =
        fault.isEmpty() ? consent::decodeRequest(line, &fault) : std::optional<consent::Request>();
    if (request)
        Q_EMIT asked(id, peer, *request);
    else
        Q_EMIT garbled(id, peer, fault);
}

bool Channel::isConnected(quint64 id)
{
    const auto found = m_connections.find(id);
    return found != m_connections.end() && platform::isStillConnected(*found->second.socket) &&
           m_connections.count(id) > 0; // Reading may have ended it.
}

bool Channel::answer(quint64 id, const consent::Result& result)
{
    std::unique_ptr<QLocalSocket> socket = release(id);
    return socket && platform::sendAndEnd(std::move(socket), consent::encodeResult(result) + '\n');
}

void Channel::lose(quint64 id)
{
    const auto found = m_connections.find(id);
    if (found == m_connections.end())
        return;
    const bool hasAsked = found->second.hasAsked;
    release(id).release()->deleteLater(); // Its signal led here.
    if (hasAsked)
        Q_EMIT left(id);
}

std::unique_ptr<QLocalSocket> Channel::release(quint64 id)
{
    const auto entry = m_connections.extract(id);
    if (entry.empty())
        return nullptr;
    std::unique_ptr<QLocalSocket> socket = std::move(entry.mapped().socket);
    socket->disconnect(this);
    return socket;
}

} // namespace korvane::desk
