// Tests the connection tools on sockets of the test's own, and their parsers on damaged input; that
// whole listings agree with ss is tested through the official client.
#include "platform/linux/network/socket_tables.h"
#include "platform/linux/sys/proc_fs.h"
#include "support/damage.h"
#include "support/mcp_client.h"
#include "support/refusals.h"
#include "support/system.h"

#include <QTcpSocket>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/syscall.h>

using namespace korvane;
using namespace linux_platform;
using namespace Qt::StringLiterals;

namespace {

const SocketTable tcp4{0, 0, ""};
const SocketTable tcp6{0, 1, ""};

/// A socket bound to `address`; with port 0, to a free one. Its port stays 0 where that is refused.
struct BoundSocket : QAbstractSocket
{
    BoundSocket(SocketType type, const char* address, quint16 port = 0)
        : QAbstractSocket(type, nullptr)
    {
        bind(QHostAddress(QString::fromLatin1(address)), port);
    }
    int fd() const { return static_cast<int>(socketDescriptor()); }
    bool listen() const { return ::listen(fd(), 5) == 0; }
};
constexpr auto tcpSocket = QAbstractSocket::TcpSocket;
constexpr auto udpSocket = QAbstractSocket::UdpSocket;

/// A port that no socket has, not even one of another protocol that waits for its end: those of
/// earlier runs do for a minute.
quint16 unusedPort(test::Client& client)
{
    quint16 port = 0;
    for (int i = 0; i < 100 && (port == 0 || !client.rowsOnPort(port).isEmpty()); ++i)
        port = BoundSocket(udpSocket, "0.0.0.0").localPort();
    return port;
}

/// A dump's datagram of `count` listening sockets, on ports from 1 on, and its end.
QByteArray dumpOf(int count, quint32 sequence, int result = 0, quint16 flags = NLM_F_MULTI)
{
    const auto append = [&](QByteArray& bytes, quint16 type, const auto& payload) {
        const auto size = static_cast<quint32>(NLMSG_LENGTH(sizeof payload));
        const nlmsghdr header{size, type, flags, sequence, 0};
        bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
        bytes.append(reinterpret_cast<const char*>(&payload), sizeof payload);
    };
    QByteArray bytes;
    for (int i = 0; i < count; ++i) {
        inet_diag_msg message = {};
        message.idiag_family = AF_INET;
        message.idiag_state = static_cast<quint8>(i + 1);
        message.id.idiag_sport = htons(static_cast<quint16>(i + 1));
        message.id.idiag_src[0] = htonl(0x7f000001);
        message.idiag_inode = 4'000'000'000U;
        append(bytes, SOCK_DIAG_BY_FAMILY, message);
    }
    append(bytes, NLMSG_DONE, result);
    return bytes;
}

auto parsed(const QByteArray& datagram, const SocketTable& table = tcp4)
{
    std::pair<Dump, std::vector<Socket>> result;
    parseSocketDump(datagram, 7, table, result.first, result.second);
    return result;
}

/// A socket's type and address, and how it is shown.
const test::Cases<QAbstractSocket::SocketType, const char*, QString> addresses{
    {"TCP", tcpSocket, "127.0.0.1", u"TCP IPv4 127.0.0.1:%1 — 监听中"_s},
    {"TCP, IPv6", tcpSocket, "::1", u"TCP IPv6 [::1]:%1 — 监听中"_s},
    {"UDP", udpSocket, "0.0.0.0", u"UDP IPv4 0.0.0.0:%1 — —"_s},
    {"UDP, IPv6", udpSocket, "::", u"UDP IPv6 [::]:%1 — —"_s},
};

const QString unreadable = u"无法读取 /proc: %1"_s;
/// The call that is refused below what is opened after so many files, or 0 where so many more may
/// be opened; and what is said then.
const test::Cases<long, int, QString> failures{
    {"of a process, its descriptors", SYS_getdents64, 1, unreadable},
    {"of a process, a link", SYS_readlinkat, 1, unreadable},
    {"of a process, its name", SYS_openat, 1, unreadable},
#ifndef __SANITIZE_ADDRESS__ // whose checks need descriptors of their own
    {"no descriptor", 0, 0, u"无法读取网络连接: netlink (%1), /proc/net/tcp (%1)"_s},
    {"one", 0, 1, unreadable},
    {"two", 0, 2, unreadable},
#endif
};

} // namespace

class TestConnections : public QObject
{
    Q_OBJECT

    test::Client m_client;

    static QString row(const QString& text, qint64 pid = ::getpid())
    {
        return u"%1 %2 tst_network"_s.arg(text, QString::number(pid));
    }

    /// The rows that another process sees on a port, amid refusals; empty where those fail.
    static QString rowsAmid(const BoundSocket& server, const std::function<bool()>& refuse)
    {
        return test::played([&] {
            ::dup2(STDERR_FILENO, server.fd()); // to be no holder of it
            test::Client client;
            if (!refuse())
                ::_exit(test::refusedCode);
            return client.rowsOnPort(server.localPort()).join(u'\n');
        });
    }

private Q_SLOTS:
    void everyHolderHasARow_data() { test::addRows(addresses); }
    void everyHolderHasARow()
    {
        const auto& [name, type, address, shown] = test::currentRow(addresses);
        const BoundSocket server(type, address, unusedPort(m_client));
        if (server.localPort() == 0 && QByteArray(address).contains(':'))
            QSKIP("this machine has no IPv6");
        QVERIFY(type == udpSocket || server.listen());
        const UniqueFd twice(::dup(server.fd())); // is no second holder
        const QString text = shown.arg(server.localPort());
        const test::Child first;
        const test::Child second(test::endFirstThread);
        QStringList expected{row(text), row(text, first.pid()), row(text, second.pid())};
        expected.sort();
        QCOMPARE(m_client.rowsOnPort(server.localPort()), expected);
    }

    void statesAndLostOwners()
    {
        const BoundSocket server(tcpSocket, "127.0.0.1", unusedPort(m_client));
        const QString serverEnd = u"127.0.0.1:%1"_s.arg(server.localPort());
        const QStringList bound = m_client.rowsOnPort(server.localPort());
        if (!bound.isEmpty()) // Linux tells of sockets that are only bound from 6.8 on
            QCOMPARE(bound, QStringList{row(u"TCP IPv4 %1 0.0.0.0:0 已关闭"_s.arg(serverEnd))});
        QVERIFY(server.listen());

        BoundSocket client(tcpSocket, "127.0.0.9", unusedPort(m_client));
        const quint16 port = client.localPort();
        const QString ends = u"TCP IPv4 127.0.0.9:%1 %2 "_s.arg(QString::number(port), serverEnd);
        client.connectToHost(QHostAddress::LocalHost, server.localPort());
        QVERIFY(client.waitForConnected());
        {
            const UniqueFd accepted(::accept4(server.fd(), nullptr, nullptr, 0));
            QCOMPARE(m_client.rowsOnPort(port), QStringList{row(ends + u"已建立"_s)});
            ::shutdown(client.fd(), SHUT_WR);
            QTRY_COMPARE(m_client.rowsOnPort(port), QStringList{row(ends + u"FIN_WAIT_2"_s)});
            QVERIFY(m_client.rowsOnPort(server.localPort()).join(u'|').contains("CLOSE_WAIT"_L1));
        }
        client.abort();
        QTRY_COMPARE(m_client.rowsOnPort(port), QStringList{ends + u"TIME_WAIT 0 "_s});
    }

    void procNetTellsTheSame()
    {
        const BoundSocket server(tcpSocket, "127.0.0.1", unusedPort(m_client));
        const BoundSocket datagrams(udpSocket, "127.0.0.1", server.localPort());
        QVERIFY(server.listen() && datagrams.localPort() != 0);
        const QStringList expected = m_client.rowsOnPort(server.localPort());
        QCOMPARE(expected.size(), 2);

        const QString rows = rowsAmid(server, [&datagrams] {
            ::dup2(STDERR_FILENO, datagrams.fd());
            return test::refuseCall(SYS_socket, AF_NETLINK, EPERM);
        });
        if (rows.isEmpty())
            QSKIP("this machine refuses a filter of system calls");
        QCOMPARE(rows, expected.join(u'\n'));
    }

    void ownFailureIsAnError_data() { test::addRows(failures); }
    void ownFailureIsAnError()
    {
        const auto& [name, number, files, error] = test::currentRow(failures);
        const BoundSocket server(udpSocket, "127.0.0.1");
        const auto refuse = [call = static_cast<quint32>(number), opened = files] {
            return call == 0 ? test::leaveDescriptors(opened)
                             : test::refuseCall(call, test::nextDescriptor() + opened, ENOMEM);
        };
        const QString rows = rowsAmid(server, refuse);
        if (rows.isEmpty())
            QSKIP("this machine refuses a filter of system calls, or a limit of descriptors");
        QCOMPARE(rows, u"Tool 'find_process_by_port' failed: "_s +
                           error.arg(qt_error_string(number == 0 ? EMFILE : ENOMEM)));
    }

    void dumpsAreTakenApart()
    {
        const auto [dump, sockets] = parsed(dumpOf(14, 7));
        QCOMPARE(dump.state, DumpState::Done);
        QVERIFY(!dump.isInterrupted);
        QList<quint32> states;
        for (const Socket& socket : sockets)
            states.append(socket.endpoint.state);
        QCOMPARE(states, (QList<quint32>{4, 2, 3, 5, 6, 10, 0, 7, 9, 1, 8, 3, 12, 12}));
        QCOMPARE(sockets.at(9).endpoint.localEndpoint(), u"127.0.0.1:10"_s);
        QCOMPARE(sockets.at(9).inode, quint64{4'000'000'000});

        const auto outcome = [](const QByteArray& datagram, const SocketTable& table = tcp4) {
            const auto [said, found] = parsed(datagram, table);
            return QList{static_cast<int>(said.state), int{said.isInterrupted}, said.errorNumber,
                         static_cast<int>(found.size())};
        };
        QCOMPARE(outcome(dumpOf(2, 8)), (QList{0, 0, 0, 0}));       // another dump
        QCOMPARE(outcome(dumpOf(2, 7), tcp6), (QList{1, 0, 0, 0})); // another family
        QCOMPARE(outcome(dumpOf(2, 7, -ENOENT)), (QList{2, 0, ENOENT, 2}));
        QCOMPARE(outcome(dumpOf(2, 7, 0, NLM_F_DUMP_INTR)), (QList{1, 1, 0, 2}));
    }

    void damagedDumpsDoNoHarm()
    {
        test::feedTruncated(dumpOf(3, 7), [](const QByteArray& datagram) {
            const auto [said, found] = parsed(datagram);
            QVERIFY(said.state == DumpState::More && found.size() <= 3);
        });
        test::feedChanged(dumpOf(3, 7), [](const QByteArray& datagram) {
            for (const SocketTable& table : {tcp4, tcp6})
                QVERIFY(parsed(datagram, table).second.size() <= 3);
        });
    }

    void damagedProcNetLinesAreLeftOut()
    {
        std::vector<Socket> sockets;
        // Whole ones, the last cut as late as can be, and damaged ones, each with its own port.
        parseProcNet("heading\n"
                     "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456 1 0\n"
                     "0: 0100007F:0001 0200000A:01BB 01 0:0 0:0 0 0 0\n"
                     "0: 100007F:0002 0200000A:01BB 01 0:0 0:0 0 0 0 23456\n"
                     "0: 0100007F:0003 200000A:01BB 01 0:0 0:0 0 0 0 23456\n"
                     "0: 00000000000000000000000001000000:4 0200000A:01BB 01 0:0 0:0 0 0 0 5\n"
                     "0: 0100007F:10005 0200000A:01BB 01 0:0 0:0 0 0 0 23456\n"
                     "0: 0100007F:0006 0200000A:01BB 01 0:0 0:0 0 0 0 99999999999999999999\n"
                     "1: 00000000:0016 00000000:0000 0A 0:0 0:0 0 0 0 5 1 0\n"
                     " 9: 0100007F:1F91 0200000A:01BB 01 0:0 0:0 0 0 0 23456",
                     tcp4, sockets);
        QStringList rows;
        for (const Socket& socket : sockets)
            rows += u"%1 %2 %3 %4"_s.arg(
                socket.endpoint.localEndpoint(), socket.endpoint.remoteEndpoint(),
                QString::number(socket.endpoint.state), QString::number(socket.inode));
        QCOMPARE(rows, (QStringList{u"127.0.0.1:8080 10.0.0.2:443 4 23456"_s, u"0.0.0.0:22 — 1 5"_s,
                                    u"127.0.0.1:8081 10.0.0.2:443 4 23456"_s}));
    }
};

QTEST_GUILESS_MAIN(TestConnections)
#include "tst_network.moc"
