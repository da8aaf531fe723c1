// Named pipes that belong to one user, in the framework's sockets.
#include "platform/local_channel.h"

#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/security.h"
#include "platform/windows/sys/text.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QTimer>
#include <QWinEventNotifier>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include <sddl.h>

namespace korvane {

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

using namespace windows_platform;
using platform::TakeConnection;

/// An instance of a pipe to which nobody has connected yet, or somebody just has.
class Instance
{
public:
    /// Begins to wait for who connects; `event` is set then. Not open where the system refuses.
    Instance(const QString& address, DWORD flags, SECURITY_ATTRIBUTES& security, HANDLE event)
    {
        constexpr DWORD bufferBytes = 64 * 1024;
        m_pipe = owned(CreateNamedPipeW(
            wide(address), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | flags,
            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
            PIPE_UNLIMITED_INSTANCES, bufferBytes, bufferBytes, 0, &security));
        m_overlapped.hEvent = event;
        if (!m_pipe || ConnectNamedPipe(m_pipe.get(), &m_overlapped) != FALSE)
            return;
        // Who came and left before this has gone for good: then it is done too, and nobody is there.
        m_isWaiting = GetLastError() == ERROR_IO_PENDING;
        m_isConnected = GetLastError() == ERROR_PIPE_CONNECTED;
    }
    ~Instance()
    {
        if (!m_isWaiting || CancelIoEx(m_pipe.get(), &m_overlapped) == FALSE)
            return;
        // The system writes to what is about to go until it has cancelled.
        const QDeadlineTimer deadline(1s);
        while (!HasOverlappedIoCompleted(&m_overlapped) && !deadline.hasExpired())
            Sleep(1);
    }
    Q_DISABLE_COPY_MOVE(Instance)

    bool isOpen() const { return m_pipe != nullptr; }
    bool isDone() const { return !m_isWaiting || HasOverlappedIoCompleted(&m_overlapped); }

    /// The connection, of an instance that is done; null where who connected has left.
    std::unique_ptr<QLocalSocket> take()
    {
        DWORD bytes = 0;
        if (std::exchange(m_isWaiting, false))
            m_isConnected =
                GetOverlappedResult(m_pipe.get(), &m_overlapped, &bytes, FALSE) != FALSE;
        if (!m_isConnected)
            return nullptr;
        auto socket = std::make_unique<QLocalSocket>();
        socket->setSocketDescriptor(reinterpret_cast<qintptr>(m_pipe.release()));
        return socket;
    }

private:
    UniqueHandle m_pipe;
    OVERLAPPED m_overlapped{};
    bool m_isWaiting = false;
    bool m_isConnected = false;
};

/// Sockets that have sent their last, for others to read.
QList<QPointer<QLocalSocket>>& endingSockets()
{
    static QList<QPointer<QLocalSocket>> sockets;
    sockets.removeIf([](const auto& socket) { return socket.isNull(); });
    return sockets;
}

/// What lets the own user in, and nobody over the network, whoever he is there. The owner is by whom
/// clients tell: an administrator's things belong to the group otherwise.
UniqueLocal<void> ownUserOnly()
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (const auto& user = ownUser()) {
        const QString text = u"O:%1D:P(D;;GA;;;NU)(A;;GA;;;%1)"_s.arg(user->sid);
        ConvertStringSecurityDescriptorToSecurityDescriptorW(wide(text), SDDL_REVISION_1,
                                                             &descriptor, nullptr);
    }
    return UniqueLocal<void>(descriptor);
}

class PipeListener final : public platform::LocalListener
{
public:
    PipeListener(QString address, TakeConnection take)
        : m_address(std::move(address)), m_take(std::move(take)), m_descriptor(ownUserOnly())
    {
        QObject::connect(&m_notifier, &QWinEventNotifier::activated, &m_notifier,
                         [this] { takeConnected(); });
    }
    ~PipeListener() override
    {
        const QDeadlineTimer deadline(1s);
        for (const auto& socket : QList(endingSockets())) {
            socket->waitForDisconnected(static_cast<int>(deadline.remainingTime()));
            if (socket)
                socket->abort(); // The name is in use as long as any end of the pipe is here.
        }
    }
    Q_DISABLE_COPY_MOVE(PipeListener)

    /// False, with the last error, where somebody has the name.
    bool listen()
    {
        constexpr std::size_t pending = 128;
        if (!m_event || !m_descriptor)
            return false;
        auto first = makeInstance(FILE_FLAG_FIRST_PIPE_INSTANCE);
        if (!first->isOpen())
            return false;
        m_instances.push_back(std::move(first));
        while (m_instances.size() < pending)
            m_instances.push_back(makeInstance());
        SetEvent(m_event.get()); // For who has come meanwhile.
        m_notifier.setHandle(m_event.get());
        m_notifier.setEnabled(true);
        return true;
    }

    QString address() const override { return m_address; }

    bool isReachable() const override
    {
        return std::any_of(m_instances.begin(), m_instances.end(),
                           [](const auto& instance) { return instance->isOpen(); });
    }

private:
    std::unique_ptr<Instance> makeInstance(DWORD flags = 0)
    {
        SECURITY_ATTRIBUTES security{sizeof security, m_descriptor.get(), FALSE};
        return std::make_unique<Instance>(m_address, flags, security, m_event.get());
    }

    /// One event stands for all instances. To begin a wait resets it: after the last beginning, all are
    /// looked at once more.
    void takeConnected()
    {
        constexpr int maxRounds = 4; // Who connects without an end does not keep the loop.
        std::vector<std::unique_ptr<QLocalSocket>> taken;
        bool isAny = true;
        for (int round = 0; round < maxRounds && isAny; ++round) {
            isAny = false;
            for (auto& instance : m_instances) {
                if (!instance->isDone())
                    continue;
                auto socket = instance->isOpen() ? instance->take() : nullptr;
                instance = makeInstance();
                isAny = isAny || instance->isOpen();
                if (socket)
                    taken.push_back(std::move(socket));
            }
        }
        if (isAny)
            SetEvent(m_event.get());
        for (auto& socket : taken)
            m_take(std::move(socket));
    }

    QString m_address;
    TakeConnection m_take;
    UniqueLocal<void> m_descriptor;
    UniqueHandle m_event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    QWinEventNotifier m_notifier;
    std::vector<std::unique_ptr<Instance>> m_instances;
};

QString connectionError(DWORD error)
{
    return error == ERROR_ACCESS_DENIED ? u"它属于别的用户或管理员: "_s + errorText(error)
                                        : errorText(error);
}

} // namespace

bool platform::areLocalSocketsFiles()
{
    return false;
}

QString platform::localAddress(const QString& name)
{
    return uR"(\\.\pipe\)"_s + name;
}

std::unique_ptr<platform::LocalListener>
platform::listenLocally(const QString& name, TakeConnection take, QString& error)
{
    auto listener = std::make_unique<PipeListener>(localAddress(name), std::move(take));
    if (listener->listen())
        return listener;
    error = connectionError(GetLastError());
    return nullptr;
}

platform::LocalConnection platform::connectLocally(const QString& name,
                                                   std::chrono::milliseconds limit)
{
    constexpr DWORD flags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    const QString address = localAddress(name);
    const QDeadlineTimer deadline(limit);
    for (;;) {
        UniqueHandle pipe = owned(CreateFileW(wide(address), GENERIC_READ | GENERIC_WRITE, 0,
                                              nullptr, OPEN_EXISTING, flags, nullptr));
        if (pipe) {
            auto socket = std::make_unique<QLocalSocket>();
            socket->setSocketDescriptor(reinterpret_cast<qintptr>(pipe.release()));
            return {std::move(socket), false, {}};
        }
        const DWORD error = GetLastError();
        if (error != ERROR_PIPE_BUSY || deadline.hasExpired())
            return {nullptr, error == ERROR_FILE_NOT_FOUND, connectionError(error)};
        // Somebody else may take what it waits for: opening tells.
        WaitNamedPipeW(wide(address),
                       static_cast<DWORD>(std::max<qint64>(deadline.remainingTime(), 1)));
    }
}

bool platform::isStillConnected(QLocalSocket& socket)
{
    auto* const pipe = reinterpret_cast<HANDLE>(socket.socketDescriptor());
    if (socket.state() == QLocalSocket::ConnectedState &&
        PeekNamedPipe(pipe, nullptr, 0, nullptr, nullptr, nullptr) == FALSE)
        socket.abort();
    return socket.state() == QLocalSocket::ConnectedState;
}

bool platform::sendAndEnd(std::unique_ptr<QLocalSocket> socket, const QByteArray& bytes)
{
    constexpr auto writingLimit = 200ms;
    constexpr auto readingLimit = 5s;
    const QDeadlineTimer deadline(writingLimit);
    socket->write(bytes);
    while (socket->bytesToWrite() > 0 &&
           socket->waitForBytesWritten(static_cast<int>(deadline.remainingTime())))
        continue;
    const bool isTaken = isStillConnected(*socket) && socket->bytesToWrite() == 0;
    QLocalSocket* const ending = socket.release(); // One of its signals may have led here.
    ending->setParent(qApp);                       // Who deletes it where no event loop follows.
    if (!isTaken) {
        ending->abort();
        ending->deleteLater();
        return false;
    }
    QObject::connect(ending, &QLocalSocket::disconnected, ending, &QObject::deleteLater);
    QTimer::singleShot(readingLimit, ending, &QObject::deleteLater);
    endingSockets().append(ending);
    return true;
}

} // namespace korvane
