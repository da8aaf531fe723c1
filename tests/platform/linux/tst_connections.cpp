// Tests the connection tools on sockets of the test's own, and their parsers on damaged input; that
// whole listings agree with ss is tested through the official client.
#include "platform/linux/network/socket_tables.h"
#include "platform/linux/sys/proc_fs.h"
#include "support/child_process.h"
#include "support/mcp_client.h"
#include "support/refusals.h"

#include <QCoreApplication>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>
#include <QTest>

#include <cstring>
#include <iostream>
#include <vector>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using linux_platform::Dump;
using linux_platform::Socket;
using linux_platform::SocketTable;
using linux_platform::UniqueFd;

namespace {

constexpr int refused = 77; ///< Exit code of a role that cannot be played here.

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
    for (const QJsonValue row : reply.json().value("connections"_L1).toArray()) {
        QStringList fields;
        for (const char* key : {"protocol", "ip_version", "local", "remote", "state"})
            fields.append(row[QLatin1String(key)].toString());
        fields.append(QString::number(row["pid"_L1].toInteger()));
        fields.append(row["process_name"_L1].toString());
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

} // namespace

class TestConnections : public QObject
{
    Q_OBJECT

    test::Client m_client;

    QString row(const QString& text, qint64 pid = ::getpid())
    {
        return u"%1 %2 tst_connections"_s.arg(text, QString::number(pid));
    }

    /// The rows that this program sees on a port in a role; empty where that cannot be played.
    static QString rowsAmidRefusal(const char* role, long call, int argument, quint16 port)
    {
        QProcess process;
        process.start(QCoreApplication::applicationFilePath(),
                      {QString::fromLatin1(role), QString::number(call), QString::number(argument),
                       QString::number(port)});
        if (!process.waitForFinished(60'000))
            return u"(it hangs)"_s;
        return process.exitCode() == refused ? QString()
                                             : QString::fromUtf8(process.readAllStandardOutput());
    }

private Q_SLOTS:
    void everyHolderHasARow_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<QString>("shown");
        QTest::newRow("TCP") << +SOCK_STREAM << QByteArray("127.0.0.1")
                             << u"TCP IPv4 127.0.0.1:%1 — 监听中"_s;
        QTest::newRow("TCP, IPv6")
            << +SOCK_STREAM << QByteArray("::1") << u"TCP IPv6 [::1]:%1 — 监听中"_s;
        QTest::newRow("TCP, mapped address") << +SOCK_STREAM << QByteArray("::ffff:127.0.0.1")
                                             << u"TCP IPv6 [::ffff:127.0.0.1]:%1 — 监听中"_s;
        QTest::newRow("UDP") << +SOCK_DGRAM << QByteArray("0.0.0.0")
                             << u"UDP IPv4 0.0.0.0:%1 — —"_s;
        QTest::newRow("UDP, IPv6") << +SOCK_DGRAM << QByteArray("::") << u"UDP IPv6 [::]:%1 — —"_s;
    }
    void everyHolderHasARow()
    {
        QFETCH(int, type);
        QFETCH(QByteArray, address);
        QFETCH(QString, shown);
        const BoundSocket server(type, address.constData(), unusedPort(m_client));
        if (server.port() == 0 && address.contains(':'))
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

        const QString rows = rowsAmidRefusal("--call", SYS_socket, AF_NETLINK, server.port());
        if (rows.isEmpty())
            QSKIP("this machine refuses a filter of system calls");
        QCOMPARE(rows, expected.join(u'\n'));
    }

    void ownFailureIsAnError_data()
    {
        QTest::addColumn<QByteArray>("role");
        QTest::addColumn<long>("call");
        QTest::addColumn<int>("opened");
        QTest::addColumn<QString>("error");
        const auto add = [](const char* name, const char* role, long call, int opened,
                            const QString& error = u"无法读取 /proc: %1"_s) {
            QTest::newRow(name) << QByteArray(role) << call << opened << error;
        };
        add("of a process, its descriptors", "--call-below", SYS_getdents64, 1);
        add("of a process, a link", "--call-below", SYS_readlinkat, 1);
        add("of a process, its name", "--call-below", SYS_openat, 1);
#ifndef __SANITIZE_ADDRESS__ // whose checks need descriptors of their own
        add("no descriptor", "--descriptors", 0, 0,
            u"无法读取网络连接: netlink (%1), /proc/net/tcp (%1)"_s);
        add("one", "--descriptors", 0, 1);
        add("two", "--descriptors", 0, 2);
#endif
    }
    void ownFailureIsAnError()
    {
        QFETCH(QByteArray, role);
        QFETCH(long, call);
        QFETCH(int, opened);
        QFETCH(QString, error);
        const BoundSocket server(SOCK_DGRAM, "127.0.0.1");
        const QString rows = rowsAmidRefusal(role.constData(), call, opened, server.port());
        if (rows.isEmpty())
            QSKIP("this machine refuses a filter of system calls, or a limit of descriptors");
        QCOMPARE(rows, u"Tool 'find_process_by_port' failed: "_s +
                           error.arg(qt_error_string(role == "--descriptors" ? EMFILE : ENOMEM)));
    }

    void dumpsAreTakenApart()
    {
        Dump dump;
        std::vector<Socket> sockets;
        linux_platform::parseSocketDump(dumpOf(14, 7), 7, tcp4, dump, sockets);
        QCOMPARE(dump.state, linux_platform::DumpState::Done);
        QVERIFY(!dump.isInterrupted);
        QList<quint32> states;
        for (const Socket& socket : sockets)
            states.append(socket.endpoint.state);
        QCOMPARE(states, (QList<quint32>{4, 2, 3, 5, 6, 10, 0, 7, 9, 1, 8, 3, 12, 12}));
        QCOMPARE(sockets.at(9).endpoint.localEndpoint(), u"127.0.0.1:10"_s);
        QCOMPARE(sockets.at(9).inode, quint64{4'000'000'000});

        const auto outcome = [](const QByteArray& datagram, const SocketTable& table) {
            Dump result;
            std::vector<Socket> found;
            linux_platform::parseSocketDump(datagram, 7, table, result, found);
            return QList{static_cast<int>(result.state), static_cast<int>(result.isInterrupted),
                         result.errorNumber, static_cast<int>(found.size())};
        };
        QCOMPARE(outcome(dumpOf(2, 8), tcp4), (QList{0, 0, 0, 0})); // another dump
        QCOMPARE(outcome(dumpOf(2, 7), tcp6), (QList{1, 0, 0, 0})); // another family
        QCOMPARE(outcome(dumpOf(2, 7, -ENOENT), tcp4), (QList{2, 0, ENOENT, 2}));
        QCOMPARE(outcome(dumpOf(2, 7, 0, NLM_F_DUMP_INTR), tcp4), (QList{1, 1, 0, 2}));
    }

    void damagedDumpsDoNoHarm()
    {
        const QByteArray whole = dumpOf(3, 7);
        for (qsizetype size = 0; size < whole.size(); ++size) {
            Dump dump;
            std::vector<Socket> sockets;
            // A copy of its own, so that a read beyond it is noticed.
            linux_platform::parseSocketDump(QByteArray(whole.constData(), size), 7, tcp4, dump,
                                            sockets);
            QCOMPARE(dump.state, linux_platform::DumpState::More);
            QVERIFY(sockets.size() <= 3);
        }
        QRandomGenerator random(1);
        for (int round = 0; round < 20'000; ++round) {
            QByteArray damaged = whole;
            for (int i = 0; i < 3; ++i)
                damaged[random.bounded(damaged.size())] = static_cast<char>(random.bounded(256));
            Dump dump;
            std::vector<Socket> sockets;
            linux_platform::parseSocketDump(damaged, 7, round % 2 == 0 ? tcp4 : tcp6, dump,
                                            sockets);
            QVERIFY(sockets.size() <= static_cast<std::size_t>(damaged.size()) / NLMSG_HDRLEN);
        }
    }

    void damagedProcNetLinesAreLeftOut_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("shown");
        const auto add = [](const char* name, const char* line, const QString& shown = {}) {
            QTest::newRow(name) << QByteArray(line) << shown;
        };
        const QString whole = u"127.0.0.1:8080 10.0.0.2:443 4 23456"_s;
        add("whole", "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456 1 0", whole);
        add("cut after the inode", " 9: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456", whole);
        add("cut before", "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0");
        add("short address", "0: 100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456");
        add("IPv6 address",
            "0: 00000000000000000000000001000000:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456");
        add("port beyond 16 bits", "0: 0100007F:11F90 0200000A:01BB 01 0:0 0:0 0 0 0 23456");
        add("beyond 64 bits",
            "0: 0100007F:1F90 0200000A:01BB 01 0:0 0:0 0 0 0 99999999999999999999");
    }
    void damagedProcNetLinesAreLeftOut()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, shown);
        const QByteArray good = "1: 00000000:0016 00000000:0000 0A 0:0 0:0 0 0 0 5 1 0";
        std::vector<Socket> sockets;
        linux_platform::parseProcNet("heading\n" + line + '\n' + good, tcp4, sockets);
        QStringList rows;
        for (const Socket& socket : sockets) {
            NetConnection endpoint = socket.endpoint;
            rows.append(u"%1 %2 %3 %4"_s.arg(endpoint.localEndpoint(), endpoint.remoteEndpoint(),
                                             QString::number(endpoint.state),
                                             QString::number(socket.inode)));
        }
        QStringList expected{u"0.0.0.0:22 — 1 5"_s};
        if (!shown.isEmpty())
            expected.prepend(shown);
        QCOMPARE(rows, expected);
    }
};

/// Plays the role of a program that is refused something: NAME CALL ARGUMENT.
bool play(QByteArrayView role, quint32 call, int argument)
{
    if (role == "--descriptors")
        return test::leaveDescriptors(argument);
    if (role == "--call-below") // the directory that is opened after `argument` other files
        return test::refuseCall(call, test::nextDescriptor() + argument, ENOMEM);
    return test::refuseCall(call, argument, EPERM);
}

int main(int argc, char** argv)
{
    if (argc == 5 && QByteArrayView(argv[1]).startsWith("--")) {
        test::Client client;
        if (!play(argv[1], QByteArray(argv[2]).toUInt(), QByteArray(argv[3]).toInt()))
            return refused;
        const QStringList rows = rowsOn(client, QByteArray(argv[4]).toUShort());
        std::cout << rows.join(u'\n').toStdString() << std::flush;
        ::_exit(0); // leaks cannot be looked for amid refusals
    }
    QCoreApplication application(argc, argv);
    TestConnections test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_connections.moc"
