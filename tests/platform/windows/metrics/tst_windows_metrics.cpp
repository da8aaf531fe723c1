// Tests the load figures on this machine, beside what other calls say and under loads of the test's own.
#include "platform/metrics.h"
#include "platform/windows/sys/handle.h"
#include "support/mcp_client.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <atomic>
#include <thread>

#include <io.h>
#include <winioctl.h>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

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

class TestMetrics : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bounds()
    {
        const QJsonObject figures = measured();
        for (auto figure = figures.begin(); figure != figures.end(); ++figure) {
            const bool isShare = figure.key().endsWith(u"_percent"_s);
            QVERIFY2(!figure->isDouble() ||
                         (figure->toDouble() >= 0 && (!isShare || figure->toDouble() <= 100)),
                     qPrintable(figure.key()));
        }
        MEMORYSTATUSEX memory{};
        memory.dwLength = sizeof memory;
        QVERIFY(GlobalMemoryStatusEx(&memory) != FALSE);
        QCOMPARE(figures[u"memory_total_bytes"_s].toDouble(),
                 static_cast<double>(memory.ullTotalPhys));
        const double used = figures[u"memory_used_bytes"_s].toDouble();
        const auto expected = static_cast<double>(memory.ullTotalPhys - memory.ullAvailPhys);
        QVERIFY(qAbs(used - expected) < 0.1 * static_cast<double>(memory.ullTotalPhys));
        QVERIFY(figures[u"commit_limit_bytes"_s].toDouble() >=
                figures[u"commit_charge_bytes"_s].toDouble());
        QVERIFY(figures[u"commit_charge_bytes"_s].toDouble() > 0);

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
        using namespace windows_platform;
        const UniqueHandle drive =
            owned(CreateFileW(LR"(\\.\PhysicalDrive0)", 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, 0, nullptr));
        DISK_PERFORMANCE counted{};
        DWORD size = 0;
        if (DeviceIoControl(drive.get(), IOCTL_DISK_PERFORMANCE, nullptr, 0, &counted,
                            sizeof counted, &size, nullptr) == FALSE) {
            QCOMPARE(measured()[u"disk_write_kbs"_s].toDouble(), 0.0);
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

QTEST_GUILESS_MAIN(TestMetrics)

#include "tst_windows_metrics.moc"
