// Tests the connection tools on sockets of the test's own.
#include "platform/network.h"
#include "platform/windows/sys/process_handle.h"
#include "support/windows.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>

#include <algorithm>

#include <winsock2.h>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

/// The rows of a port; the own PID and name, which each has, cut off.
QStringList rowsOn(quint16 port)
{
    const QString own = u" %1 tst_windows_network.exe"_s.arg(GetCurrentProcessId());
    return test::Client().rowsOnPort(port).replaceInStrings(own, QString());
}

const test::Cases<const char*, const char*> families{
    {"IPv4", "127.0.0.1", "TCP IPv4 127.0.0.1:%1 "},
    {"IPv6", "::1", "TCP IPv6 [::1]:%1 "},
};

} // namespace

class TestConnections : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void states_data() { test::addRows(families); }
    void states()
    {
        const auto& [name, address, text] = test::currentRow(families);
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress(QString::fromLatin1(address))));
        const quint16 port = server.serverPort();
        const QString begin = QString::fromLatin1(text).arg(port);
        QCOMPARE(rowsOn(port), QStringList{begin + u"— 监听中"_s});

        QTcpSocket client;
        client.connectToHost(server.serverAddress(), port);
        QVERIFY(server.waitForNewConnection(5000));
        const std::unique_ptr<QTcpSocket> accepted(server.nextPendingConnection());
        QVERIFY(client.waitForConnected());
        const QString other = QString::fromLatin1(text).arg(client.localPort());
        const QString remote = other.split(u' ').at(2) + u' ';
        const QString own = begin.split(u' ').at(2) + u' ';
        QCOMPARE(rowsOn(port), QStringList({begin + remote + u"已建立"_s, begin + u"— 监听中"_s}));
        QCOMPARE(rowsOn(client.localPort()), QStringList{other + own + u"已建立"_s});

        server.close();
        shutdown(static_cast<SOCKET>(client.socketDescriptor()), SD_SEND);
        QTRY_COMPARE(rowsOn(port), QStringList{begin + remote + u"CLOSE_WAIT"_s});
        QTRY_COMPARE(rowsOn(client.localPort()), QStringList{other + own + u"FIN_WAIT_2"_s});
    }

    void datagrams()
    {
        QUdpSocket first;
        QVERIFY(first.bind(QHostAddress(QHostAddress::AnyIPv4), 0));
        const QString port = QString::number(first.localPort());
        QCOMPARE(rowsOn(first.localPort()), QStringList{u"UDP IPv4 0.0.0.0:%1 — —"_s.arg(port)});
        QUdpSocket second;
        QVERIFY(second.bind(QHostAddress(QHostAddress::LocalHostIPv6), first.localPort()));
        QCOMPARE(rowsOn(first.localPort()), QStringList({u"UDP IPv4 0.0.0.0:%1 — —"_s.arg(port),
                                                         u"UDP IPv6 [::1]:%1 — —"_s.arg(port)}));
    }

    /// More sockets than the first buffer has room for; their owner is one that may be ended.
    void manySockets()
    {
        constexpr std::ptrdiff_t count = 6000;
        std::vector<std::unique_ptr<QUdpSocket>> sockets;
        for (int i = 0; i < count; ++i) {
            sockets.push_back(std::make_unique<QUdpSocket>());
            QVERIFY(sockets.back()->bind(QHostAddress(QHostAddress::LocalHost), 0));
        }
        ShownProcesses shown;
        const auto rows = platform::listConnections(shown, nullptr);
        QVERIFY(std::count_if(rows.begin(), rows.end(), [](const NetConnection& row) {
                    return row.protocol == 1 && row.pid == GetCurrentProcessId();
                }) >= count);
        QCOMPARE(shown.startTimeOf(GetCurrentProcessId()),
                 windows_platform::creationTime(GetCurrentProcess()));
        QVERIFY(!shown.startTimeOf(0));
    }
};

QTEST_GUILESS_MAIN(TestConnections)

#include "tst_windows_network.moc"
