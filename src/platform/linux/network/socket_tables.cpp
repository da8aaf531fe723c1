// Asks the kernel for its sockets over netlink; reads /proc/net where that is refused.
#include "platform/linux/network/socket_tables.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace korvane::linux_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr quint32 tcp = 0;
constexpr quint32 ipv6 = 1;

/// A table of a million sockets has 150 MB as text; one that says it has more is not believed.
constexpr qsizetype maxProcNetBytes = qsizetype{512} * 1024 * 1024;

/// How often an inconsistent dump is asked for before that is an error.
constexpr int maxDumps = 5;

/// The kernel's number of a TCP state as NetConnection has it.
quint32 tcpState(unsigned int kernelState)
{
    // From the kernel's 1, ESTABLISHED, to its 12, NEW_SYN_RECV.
    static constexpr std::array<quint32, 12> states{4, 2, 3, 5, 6, 10, 0, 7, 9, 1, 8, 3};
    constexpr quint32 unknown = 12;
    return kernelState >= 1 && kernelState <= states.size() ? states.at(kernelState - 1) : unknown;
}

NetConnection emptyEndpoint(const SocketTable& table, unsigned int kernelState)
{
    NetConnection endpoint;
    endpoint.protocol = table.protocol;
    endpoint.family = table.family;
    endpoint.state = table.protocol == tcp ? tcpState(kernelState) : 0;
    return endpoint;
}

int addressFamily(const SocketTable& table)
{
    return table.family == ipv6 ? AF_INET6 : AF_INET;
}

/// The textual form of an address of at least 16 bytes in network order.
QString addressText(const SocketTable& table, const void* address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(addressFamily(table), address, text.data(), text.size());
    return QString::fromLatin1(text.data());
}

/// A structure at the start of `bytes`, which may lie at any address; none when they are too few.
template <typename Struct> std::optional<Struct> structAt(QByteArrayView bytes)
{
    if (bytes.size() < static_cast<qsizetype>(sizeof(Struct)))
        return std::nullopt;
    Struct value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

Socket socketOf(const inet_diag_msg& message, const SocketTable& table)
{
    Socket socket{emptyEndpoint(table, message.idiag_state), message.idiag_inode};
    socket.endpoint.localAddress = addressText(table, message.id.idiag_src);
    socket.endpoint.localPort = ntohs(message.id.idiag_sport);
    socket.endpoint.remoteAddress = addressText(table, message.id.idiag_dst);
    socket.endpoint.remotePort = ntohs(message.id.idiag_dport);
    return socket;
}

/// Takes an address and a port, in hexadecimal with a colon between them, off `rest`.
bool takeEndpoint(QByteArrayView& rest, const SocketTable& table, QString& address, quint16& port)
{
    QByteArrayView word = takeWord(rest);
    const QByteArrayView digits = takeUntil(word, ':');
    // The address was printed as 32-bit numbers of this machine.
    constexpr qsizetype digitsPerNumber = 8;
    std::array<quint32, 4> numbers{};
    const std::size_t count = table.family == ipv6 ? 4 : 1;
    if (digits.size() != static_cast<qsizetype>(count) * digitsPerNumber)
        return false;
    for (std::size_t i = 0; i < count; ++i) {
        const auto at = static_cast<qsizetype>(i) * digitsPerNumber;
        if (!parseNumber(digits.sliced(at, digitsPerNumber), numbers.at(i), 16))
            return false;
    }
    address = addressText(table, numbers.data());
    return parseNumber(word, port, 16);
}

std::optional<Socket> parseProcNetLine(QByteArrayView line, const SocketTable& table)
{
    takeWord(line); // the row's number
    Socket socket{emptyEndpoint(table, 0), 0};
    NetConnection& endpoint = socket.endpoint;
    if (!takeEndpoint(line, table, endpoint.localAddress, endpoint.localPort) ||
        !takeEndpoint(line, table, endpoint.remoteAddress, endpoint.remotePort))
        return std::nullopt;
    unsigned int state = 0;
    if (!parseNumber(takeWord(line), state, 16))
        return std::nullopt;
    endpoint.state = emptyEndpoint(table, state).state;
    for (int i = 0; i < 5; ++i) // queues, timer, retransmissions, user, time-out
        takeWord(line);
    return parseNumber(takeWord(line), socket.inode) ? std::optional(socket) : std::nullopt;
}

/// A socket of the kernel's diagnostics, which answers one dump after another.
class SocketDiagnostics
{
public:
    SocketDiagnostics()
        : m_socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)),
          m_openError(m_socket.isValid() ? 0 : errno)
    {
        // The kernel answers at once; a limit all the same.
        constexpr timeval patience{5, 0};
        static_cast<void>(
            ::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience));
    }

    /// Asks for a table; appends it to `sockets` unless it is refused or interrupted.
    Dump dump(const SocketTable& table, std::vector<Socket>& sockets)
    {
        if (!m_socket.isValid())
            return {.state = DumpState::Refused, .errorNumber = m_openError};
        if (!ask(table))
            return {.state = DumpState::Refused, .errorNumber = errno};
        const std::size_t before = sockets.size();
        Dump dump;
        while (dump.state == DumpState::More) {
            const auto datagram = receive();
            if (datagram)
                parseSocketDump(*datagram, m_sequence, table, dump, sockets);
            else
                dump = {.state = DumpState::Refused, .errorNumber = errno};
        }
        if (dump.state == DumpState::Refused || dump.isInterrupted)
            sockets.resize(before);
        return dump;
    }

private:
    bool ask(const SocketTable& table)
    {
        struct
        {
            nlmsghdr header;
            inet_diag_req_v2 request;
        } message = {};
        message.header.nlmsg_len = sizeof message;
        message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        message.header.nlmsg_seq = ++m_sequence;
        message.request.sdiag_family = static_cast<__u8>(addressFamily(table));
        message.request.sdiag_protocol = table.protocol == tcp ? IPPROTO_TCP : IPPROTO_UDP;
        // Those too that are only bound: nobody else can have their port.
        message.request.idiag_states = ~0U;
        return ::send(m_socket.get(), &message, sizeof message, MSG_NOSIGNAL) == sizeof message;
    }

    /// The next datagram of the kernel; none, and errno, when none comes.
    std::optional<QByteArrayView> receive()
    {
        for (;;) {
            sockaddr_nl sender = {};
            socklen_t senderSize = sizeof sender;
            const ssize_t size =
                ::recvfrom(m_socket.get(), m_buffer.data(), m_buffer.size(), MSG_TRUNC,
                           reinterpret_cast<sockaddr*>(&sender), &senderSize);
            if (size < 0 && errno == EINTR)
                continue;
            if (size < 0)
                return std::nullopt;
            if (static_cast<std::size_t>(size) > m_buffer.size()) {
                errno = EMSGSIZE;
                return std::nullopt;
            }
            if (sender.nl_pid == 0) // the kernel, and no other program
                return QByteArrayView(m_buffer.data(), size);
        }
    }

    UniqueFd m_socket;
    int m_openError; ///< Why there is no socket; 0 where there is one.
    quint32 m_sequence = 0;
    std::array<char, std::size_t{64} * 1024> m_buffer{};
};

/// Appends a table as /proc/net tells it; false, and errno, when it cannot be read.
bool readProcNet(const SocketTable& table, std::vector<Socket>& sockets)
{
    const auto text = readSystemFile(table.procFile, maxProcNetBytes);
    // A kernel without IPv6 has no such file, and no such sockets.
    if (!text)
        return table.family == ipv6 && errno == ENOENT;
    parseProcNet(*text, table, sockets);
    return true;
}

/// Appends one table; the text for the user when that failed, else empty.
QString readTable(SocketDiagnostics& diagnostics, const SocketTable& table,
                  std::vector<Socket>& sockets)
{
    Dump dump = diagnostics.dump(table, sockets);
    for (int i = 1; i < maxDumps && dump.isInterrupted; ++i)
        dump = diagnostics.dump(table, sockets);
    if (dump.isInterrupted)
        return u"网络连接表变化过快, 未能得到一致的列表, 请重试"_s;
    if (dump.state == DumpState::Done)
        return {};
    if (readProcNet(table, sockets))
        return {};
    const int procError = errno;
    return u"无法读取网络连接: netlink (%1), %2 (%3)"_s.arg(qt_error_string(dump.errorNumber),
                                                            QString::fromLatin1(table.procFile),
                                                            qt_error_string(procError));
}

} // namespace

std::span<const SocketTable> socketTables()
{
    static constexpr std::array<SocketTable, 4> tables{{{0, 0, "/proc/net/tcp"},
                                                        {0, 1, "/proc/net/tcp6"},
                                                        {1, 0, "/proc/net/udp"},
                                                        {1, 1, "/proc/net/udp6"}}};
    return tables;
}

void parseSocketDump(QByteArrayView datagram, quint32 sequence, const SocketTable& table,
                     Dump& dump, std::vector<Socket>& sockets)
{
    while (const auto header = structAt<nlmsghdr>(datagram)) {
        const qsizetype size = header->nlmsg_len;
        if (size < NLMSG_HDRLEN || size > datagram.size())
            return;
        const QByteArrayView payload = datagram.sliced(NLMSG_HDRLEN, size - NLMSG_HDRLEN);
        datagram = datagram.sliced(std::min<qsizetype>(NLMSG_ALIGN(size), datagram.size()));
        if (header->nlmsg_seq != sequence)
            continue;
        dump.isInterrupted |= (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        if (header->nlmsg_type == NLMSG_DONE || header->nlmsg_type == NLMSG_ERROR) {
            // Both begin with 0 or a negative errno.
            dump.errorNumber = -structAt<int>(payload).value_or(0);
            dump.state = dump.errorNumber == 0 ? DumpState::Done : DumpState::Refused;
            return;
        }
        const auto message = structAt<inet_diag_msg>(payload);
        if (message && message->idiag_family == addressFamily(table))
            sockets.push_back(socketOf(*message, table));
    }
}

void parseProcNet(QByteArrayView text, const SocketTable& table, std::vector<Socket>& sockets)
{
    takeUntil(text, '\n'); // the heading
    while (!text.isEmpty()) {
        if (auto socket = parseProcNetLine(takeUntil(text, '\n'), table))
            sockets.push_back(*std::move(socket));
    }
}

QString readSocketTables(std::vector<Socket>& sockets)
{
    sockets.clear();
    SocketDiagnostics diagnostics;
    for (const SocketTable& table : socketTables()) {
        QString error = readTable(diagnostics, table, sockets);
        if (!error.isEmpty())
            return error;
    }
    return {};
}

} // namespace korvane::linux_platform
