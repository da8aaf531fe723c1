// Tests the connection tools on sockets of the test's own, and the load figures on this machine,
// beside what other calls say and under loads of the test's own.
#include "platform/metrics.h"
#include "platform/network.h"
#include "platform/windows/sys/process_handle.h"
#include "support/windows.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>

#include <algorithm>
#include <atomic>
#include <thread>

#include <winsock2.h>

#include <io.h>
#include <winioctl.h>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

/// The rows of a port; the own PID and name, which each has, cut off.
QStringList rowsOn(quint16 port)
{
    const QString own = u" %1 tst_windows_load.exe"_s.arg(GetCurrentProcessId());
    return test::Client().rowsOnPort(port).replaceInStrings(own, QString());
}

const test::Cases<const char*, const char*> families{
    {"IPv4", "127.0.0.1", "TCP IPv4 127.0.0.1:%1 "},
    {"IPv6", "::1", "TCP IPv6 [::1]:%1 "},
};

QJsonObject measured()
{
    return test::Client().call(u"get_system_metrics"_s).json();
}

/// What is measured while some threads do `work` over and over.
template <typename Work> QJsonObject measuredDuring(unsigned int threads, Work work)
{
    std::atomic<bool> isDone = false;
    std::vector<std::thread> workers;
    for (unsigned int i = 0; i < threads; ++i) {
        workers.emplace_back([&] {
            while (!isDone)
                work();
        });
    }
    QJsonObject figures = measured();
    isDone = true;
    for (std::thread& worker : workers)
        worker.join();
    return figures;
}

} // namespace

class TestWindowsLoad : public QObject
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
        QUdpSocket second;
        QVERIFY(first.bind(QHostAddress(QHostAddress::AnyIPv4), 0));
        const quint16 port = first.localPort();
        QVERIFY(second.bind(QHostAddress(QHostAddress::LocalHostIPv6), port));
        QCOMPARE(rowsOn(port), QStringList({u"UDP IPv4 0.0.0.0:%1 — —"_s.arg(port),
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

    void bounds()
    {
        const QJsonObject figures = measured();
        for (auto figure = figures.begin(); figure != figures.end(); ++figure) {
            const double most = figure.key().endsWith(u"_percent"_s) ? 100 : 1e15;
            QVERIFY2(figure->toDouble() >= 0 && figure->toDouble() <= most,
                     qPrintable(figure.key()));
        }
        MEMORYSTATUSEX memory{};
        memory.dwLength = sizeof memory;
        QVERIFY(GlobalMemoryStatusEx(&memory) != FALSE);
        const double used = figures[u"memory_used_bytes"_s].toDouble();
        const auto all = static_cast<double>(memory.ullTotalPhys);
        QVERIFY(qAbs(used - all + static_cast<double>(memory.ullAvailPhys)) < 0.1 * all);
        QCOMPARE(figures[u"memory_total_bytes"_s].toDouble(), all);
        const double charge = figures[u"commit_charge_bytes"_s].toDouble();
        QVERIFY(charge > 0 && charge <= figures[u"commit_limit_bytes"_s].toDouble());

        SystemMetrics memoryOnly;
        platform::sampleMemoryOnly(memoryOnly);
        QCOMPARE(memoryOnly.memoryTotalBytes, quint64{memory.ullTotalPhys});
        QCOMPARE(memoryOnly.cpuPercent, 0.0);
    }

    void processors()
    {
        volatile quint64 count = 0;
        const QJsonObject figures = measuredDuring(std::thread::hardware_concurrency(), [&count] {
            for (int i = 0; i < 1000; ++i)
                count = count + 1;
        });
        const double share = figures[u"cpu_percent"_s].toDouble();
        QVERIFY2(share > 50, qPrintable(QString::number(share)));
    }

    void disks()
    {
        const test::UniqueHandle drive = test::open(uR"(\\.\PhysicalDrive0)"_s, 0);
        DISK_PERFORMANCE counted{};
        DWORD size = 0;
        if (DeviceIoControl(drive.get(), IOCTL_DISK_PERFORMANCE, nullptr, 0, &counted,
                            sizeof counted, &size, nullptr) == FALSE) {
            QSKIP("this system counts no disk's load: Wine knows no IOCTL_DISK_PERFORMANCE");
        }
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"written"_s);
        const QJsonObject figures = measuredDuring(1, [&path] {
            QFile file(path);
            file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
            file.write(QByteArray(1 << 20, 'x'));
            FlushFileBuffers(reinterpret_cast<HANDLE>(_get_osfhandle(file.handle())));
        });
        QVERIFY(figures[u"disk_write_kbs"_s].toDouble() > 1000);
        QVERIFY(figures[u"disk_percent"_s].toDouble() > 0);
    }

    /// What stays in the machine is no load of the network.
    void loopback()
    {
        QUdpSocket receiver;
        QVERIFY(receiver.bind(QHostAddress(QHostAddress::LocalHost), 0));
        const quint16 port = receiver.localPort();
        std::atomic<qint64> sent = 0;
        const QJsonObject figures = measuredDuring(1, [port, &sent] {
            static thread_local QUdpSocket sender;
            const QByteArray datagram(32'000, 'x');
            sent += sender.writeDatagram(datagram, QHostAddress(QHostAddress::LocalHost), port);
        });
        const double most = static_cast<double>(sent) / 1024 / 0.25;
        QVERIFY(most > 0);
        QVERIFY2(figures[u"net_send_kbs"_s].toDouble() < most / 4, qPrintable(test::text(figures)));
    }
};

QTEST_GUILESS_MAIN(TestWindowsLoad)
#include "tst_windows_load.moc"
