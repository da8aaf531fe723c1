// Tests the connection tools on sockets of the test's own, and their parsers on damaged input; that
// whole listings agree with ss is tested through the official client.
#include "platform/linux/network/socket_tables.h"
#include "platform/linux/sys/proc_fs.h"
#include "support/damage.h"
#include "support/mcp_client.h"
#include "support/refusals.h"
#include "support/system.h"

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

sockaddr_in6 socketAddress(const char* text, quint16 port)
{
    sockaddr_in6 address = {};
    auto& version4 = reinterpret_cast<sockaddr_in&>(address);
    address.sin6_port = htons(port); // at the same place in both
    if (::inet_pton(AF_INET, text, &version4.sin_addr) == 1) {
        address.sin6_family = AF_INET;
    } else {
        address.sin6_family = AF_INET6;
        ::inet_pton(AF_INET6, text, &address.sin6_addr);
    }
    return address;
}

/// A socket bound to `address`; with port 0, to a free one. Invalid where that is refused.
class BoundSocket
{
public:
    BoundSocket(int type, const char* address, quint16 port = 0)
        : m_address(socketAddress(address, port)),
          m_fd(::socket(m_address.sin6_family, type | SOCK_CLOEXEC, 0))
    {
        socklen_t size = sizeof m_address;
        auto* const raw = reinterpret_cast<sockaddr*>(&m_address);
        if (::bind(m_fd.get(), raw, size) == 0 && ::getsockname(m_fd.get(), raw, &size) == 0)
            m_port = ntohs(m_address.sin6_port);
    }

    int fd() const { return m_fd.get(); }
    quint16 port() const { return m_port; } ///< 0 where it is not bound.
    bool listen() const { return ::listen(m_fd.get(), 5) == 0; }
    bool connectTo(const BoundSocket& other) const
    {
        const auto* const raw = reinterpret_cast<const sockaddr*>(&other.m_address);
        return ::connect(m_fd.get(), raw, sizeof other.m_address) == 0;
    }

private:
    sockaddr_in6 m_address;
    UniqueFd m_fd;
    quint16 m_port = 0;
};

/// One line a row: protocol, version, both ends, state and owner.
QStringList rowsOn(test::Client& client, quint16 port)
{
    const auto reply = client.call(u"find_process_by_port"_s, {{u"port"_s, port}});
    QStringList rows;
    for (const QJsonValue row : reply.json()["connections"_L1].toArray()) {
        QStringList fields;
        for (const auto& key : {u"protocol"_s, u"ip_version"_s, u"local"_s, u"remote"_s, u"state"_s,
                                u"pid"_s, u"process_name"_s})
            fields.append(row[key].toVariant().toString());
        rows.append(fields.join(u' '));
    }
    rows.sort();
    return reply.isError ? QStringList{reply.text} : rows;
}

/// A port that no socket has, not even one of another protocol that waits for its end: those of
/// earlier runs do for a minute. 0 where none is found.
quint16 unusedPort(test::Client& client)
{
    for (int i = 0; i < 100; ++i) {
        const quint16 port = BoundSocket(SOCK_DGRAM, "0.0.0.0").port();
        if (rowsOn(client, port).isEmpty())
            return port;
    }
    return 0;
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

struct Parsed
{
    Dump dump;
    std::vector<Socket> sockets;
};

Parsed parsed(const QByteArray& datagram, const SocketTable& table = tcp4)
{
    Parsed result;
    parseSocketDump(datagram, 7, table, result.dump, result.sockets);
    return result;
}

/// A socket's type and address, and how it is shown.
const test::Cases<int, const char*, QString> addresses{
    {"TCP", SOCK_STREAM, "127.0.0.1", u"TCP IPv4 127.0.0.1:%1 — 监听中"_s},
    {"TCP, IPv6", SOCK_STREAM, "::1", u"TCP IPv6 [::1]:%1 — 监听中"_s},
    {"TCP, mapped address", SOCK_STREAM, "::ffff:127.0.0.1",
     u"TCP IPv6 [::ffff:127.0.0.1]:%1 — 监听中"_s},
    {"UDP", SOCK_DGRAM, "0.0.0.0", u"UDP IPv4 0.0.0.0:%1 — —"_s},
    {"UDP, IPv6", SOCK_DGRAM, "::", u"UDP IPv6 [::]:%1 — —"_s},
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

const QString whole = u"127.0.0.1:8080 10.0.0.2:443 4 23456"_s;
const test::Cases<QByteArray, QString> procNetLines{
    {"whole", "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456 1 0", whole},
    {"cut after the inode", " 9: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456", whole},
    {"cut before", "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0", {}},
    {"short address", "0: 100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456", {}},
    {"IPv6", "0: 00000000000000000000000001000000:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 5", {}},
    {"port beyond 16 bits", "0: 0100007F:11F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456", {}},
    {"beyond 64 bits", "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 99999999999999999999", {}},
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
            return rowsOn(client, server.port()).join(u'\n');
        });
    }

private Q_SLOTS:
    void everyHolderHasARow_data() { test::addRows(addresses); }
    void everyHolderHasARow()
    {
        const auto& [name, type, address, shown] = test::currentRow(addresses);
        const BoundSocket server(type, address, unusedPort(m_client));
        if (server.port() == 0 && QByteArray(address).contains(':'))
            QSKIP("this machine has no IPv6");
        QVERIFY(type == SOCK_DGRAM || server.listen());
        const UniqueFd twice(::dup(server.fd())); // is no second holder
        const QString text = shown.arg(server.port());
        const test::Child first;
        QStringList expected{row(text), row(text, first.pid())};
        {
            const test::Child second(test::endFirstThread);
            QStringList three = expected + QStringList{row(text, second.pid())};
            three.sort();
            QCOMPARE(rowsOn(m_client, server.port()), three);
        }
        expected.sort();
        QCOMPARE(rowsOn(m_client, server.port()), expected);
    }

    void statesAndLostOwners()
    {
        const BoundSocket server(SOCK_STREAM, "127.0.0.1", unusedPort(m_client));
        const QString serverEnd = u"127.0.0.1:%1"_s.arg(server.port());
        const QStringList bound = rowsOn(m_client, server.port());
        if (!bound.isEmpty()) // Linux tells of sockets that are only bound from 6.8 on
            QCOMPARE(bound, QStringList{row(u"TCP IPv4 %1 0.0.0.0:0 已关闭"_s.arg(serverEnd))});
        QVERIFY(server.listen());

        auto client = std::make_unique<BoundSocket>(SOCK_STREAM, "127.0.0.9", unusedPort(m_client));
        const quint16 port = client->port();
        const QString ends = u"TCP IPv4 127.0.0.9:%1 %2 "_s.arg(QString::number(port), serverEnd);
        QVERIFY(client->connectTo(server));
        auto accepted = std::make_unique<UniqueFd>(::accept4(server.fd(), nullptr, nullptr, 0));
        QCOMPARE(rowsOn(m_client, port), QStringList{row(ends + u"已建立"_s)});

        ::shutdown(client->fd(), SHUT_WR);
        QTRY_COMPARE(rowsOn(m_client, port), QStringList{row(ends + u"FIN_WAIT_2"_s)});
        QVERIFY(rowsOn(m_client, server.port()).join(u'|').contains("CLOSE_WAIT"_L1));
        accepted.reset();
        client.reset();
        QTRY_COMPARE(rowsOn(m_client, port), QStringList{ends + u"TIME_WAIT 0 "_s});
    }

    void procNetTellsTheSame()
    {
        const BoundSocket server(SOCK_STREAM, "127.0.0.1", unusedPort(m_client));
        const BoundSocket datagrams(SOCK_DGRAM, "127.0.0.1", server.port());
        QVERIFY(server.listen() && datagrams.port() != 0);
        const QStringList expected = rowsOn(m_client, server.port());
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
        const BoundSocket server(SOCK_DGRAM, "127.0.0.1");
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
            const Parsed result = parsed(datagram, table);
            return QList{static_cast<int>(result.dump.state), int{result.dump.isInterrupted},
                         result.dump.errorNumber, static_cast<int>(result.sockets.size())};
        };
        QCOMPARE(outcome(dumpOf(2, 8)), (QList{0, 0, 0, 0}));       // another dump
        QCOMPARE(outcome(dumpOf(2, 7), tcp6), (QList{1, 0, 0, 0})); // another family
        QCOMPARE(outcome(dumpOf(2, 7, -ENOENT)), (QList{2, 0, ENOENT, 2}));
        QCOMPARE(outcome(dumpOf(2, 7, 0, NLM_F_DUMP_INTR)), (QList{1, 1, 0, 2}));
    }

    void damagedDumpsDoNoHarm()
    {
        test::feedTruncated(dumpOf(3, 7), [](const QByteArray& datagram) {
            const Parsed result = parsed(datagram);
            QCOMPARE(result.dump.state, DumpState::More);
            QVERIFY(result.sockets.size() <= 3);
        });
        test::feedChanged(dumpOf(3, 7), [](const QByteArray& datagram) {
            for (const SocketTable& table : {tcp4, tcp6})
                QVERIFY(parsed(datagram, table).sockets.size() <= 3);
        });
    }

    void damagedProcNetLinesAreLeftOut_data() { test::addRows(procNetLines); }
    void damagedProcNetLinesAreLeftOut()
    {
        const auto& [name, line, shown] = test::currentRow(procNetLines);
        const QByteArray good = "1: 00000000:0016 00000000:0000 0A 0:0 0:0 0 0 0 5 1 0";
        std::vector<Socket> sockets;
        parseProcNet("heading\n" + line + '\n' + good, tcp4, sockets);
        QStringList rows;
        for (const Socket& socket : sockets) {
            NetConnection endpoint = socket.endpoint;
            rows.append(u"%1 %2 %3 %4"_s.arg(endpoint.localEndpoint(), endpoint.remoteEndpoint(),
                                             QString::number(endpoint.state),
                                             QString::number(socket.inode)));
        }
        QStringList expected{shown, u"0.0.0.0:22 — 1 5"_s};
        expected.removeAll(QString());
        QCOMPARE(rows, expected);
    }
};

QTEST_GUILESS_MAIN(TestConnections)
#include "tst_network.moc"
