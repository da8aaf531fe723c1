// Tests the load figures on directories of the shape of /proc and /sys, and on this machine beside
// what other tools and counters of the system say in the same moment.
#include "platform/linux/metrics/load_sampler.h"
#include "platform/platform.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTest>
#include <QTextStream>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <iostream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

/// Files by path: a path that ends in '/' is an empty directory, "-" removes what is there, and
/// "->x" makes a link to x.
using Files = QList<std::pair<QByteArray, QByteArray>>;

namespace {

constexpr int refused = 77; ///< Exit code of a role that cannot be played here.

/// Two samples around some work; the counters and the clock are read right inside of them and right
/// outside, and the truth lies between.
struct Enclosed
{
    using Counters = QList<double>;
    SystemMetrics sample;
    Counters inner;
    Counters outer;
    double innerSeconds = 0;
    double outerSeconds = 0;

    Enclosed(const std::function<Counters()>& read, const std::function<void()>& work)
    {
        const Counters outerBegin = read();
        QElapsedTimer outerTime;
        outerTime.start();
        platform::sampleSystemMetrics(sample);
        QElapsedTimer innerTime;
        innerTime.start();
        const Counters innerBegin = read();
        work();
        inner = read();
        innerSeconds = static_cast<double>(innerTime.nsecsElapsed()) / 1e9;
        platform::sampleSystemMetrics(sample);
        outerSeconds = static_cast<double>(outerTime.nsecsElapsed()) / 1e9;
        outer = read();
        for (qsizetype i = 0; i < inner.size(); ++i) {
            inner[i] -= innerBegin.at(i);
            outer[i] -= outerBegin.at(i);
        }
    }

    bool holds(double rate, qsizetype counter) const
    {
        return rate >= 0.999 * inner.at(counter) / outerSeconds &&
               rate <= 1.001 * outer.at(counter) / innerSeconds;
    }
};

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

/// KiB read from and written to whole disks, which are told by their names.
QList<double> diskCounters()
{
    static const QRegularExpression disks(
        u"^([svh]d[a-z]+|xvd[a-z]+|sr\\d+|mmcblk\\d+(boot\\d)?|nvme\\d+n\\d+)$"_s);
    QList<double> kib{0, 0};
    for (const QByteArray& line : contentOf(u"/proc/diskstats"_s).split('\n')) {
        const QByteArrayList words = line.simplified().split(' ');
        if (words.size() > 13 && disks.match(QString::fromUtf8(words.at(2))).hasMatch()) {
            kib[0] += words.at(5).toDouble() / 2;
            kib[1] += words.at(9).toDouble() / 2;
        }
    }
    return kib;
}

/// A line of /sys/block/NAME/stat.
QByteArray disk(const QByteArray& readSectors, const QByteArray& written, const QByteArray& busyMs)
{
    return " 7 7 " + readSectors + " 7 7 7 " + written + " 7 7 " + busyMs + " 9999999 7 7 7 7\n";
}

/// A line of /proc/net/dev.
QByteArray link(const QByteArray& name, const QByteArray& received, const QByteArray& sent)
{
    return name + received + " 7 7 7 7 7 7 7 " + sent + " 7 7 7 7 7 7 7\n";
}

void writeFiles(const Files& files, const QDir& root)
{
    for (const auto& [name, content] : files) {
        const QString path = root.filePath(QString::fromUtf8(name));
        root.mkpath(path.left(path.lastIndexOf(u'/')));
        if (content == "-") {
            QDir(path).removeRecursively();
            QFile::remove(path);
        } else if (content.startsWith("->")) {
            QFile::link(QString::fromUtf8(content.sliced(2)), path);
        } else if (!path.endsWith(u'/')) {
            QFile file(path);
            QVERIFY(file.open(QFile::WriteOnly));
            file.write(content);
        }
    }
}

QString shown(const SystemMetrics& m)
{
    QString text;
    QTextStream(&text) << "cpu " << m.cpuPercent << "|memory " << m.memoryUsedBytes / 1024 << '/'
                       << m.memoryTotalBytes / 1024 << ' ' << m.memoryPercent << "|commit "
                       << m.commitChargeBytes / 1024 << '/' << m.commitLimitBytes / 1024 << ' '
                       << m.commitPercent << "|disk " << m.diskPercent << ' ' << m.diskReadKbs
                       << ' ' << m.diskWriteKbs << "|net " << m.netRecvKbs << ' ' << m.netSendKbs;
    return text;
}

const QByteArray most = "18446744073709551615";
const QByteArray cpuBefore = "cpu  100 0 100 700 100 0 0 0 0 0\ncpu0 9 9\n";
const QByteArray swapInfo = "SwapTotal: 1000 kB\nSwapFree: 750 kB\n";
const QByteArray meminfo = "MemTotal:  1000 kB\nMemFree: 100 kB\nMemAvailable: 600 kB\nBuffers: 50 "
                           "kB\nCached: 150 kB\nCommitLimit: 1500 kB\nCommitted_AS: 1200 kB\n";
const QByteArray lo = link("    lo: ", "5", "5");
const QByteArray loAfter = link("    lo: ", "5000000", "5000000");
const QByteArray eth = link("  eth0: ", "1000", "2000");
const QByteArray ethAfter = link("  eth0: ", "21480", "43960"); // 20 and 40.97 KiB more

const Files before = {
    {"proc/stat", cpuBefore},
    {"proc/meminfo", meminfo + swapInfo},
    {"proc/sys/vm/overcommit_memory", "0\n"},
    {"proc/net/dev", "Inter-| Receive | Transmit\n face |bytes |bytes\n" + lo + eth},
    {"sys/class/net/eth0/device/", {}},
    {"sys/block/sda/device/", {}},
    {"sys/block/sda/stat", disk("1000", "2000", "3000")},
};
/// Two seconds later.
const Files after = {
    {"proc/stat", "cpu  150 0 100 800 150 0 0 0 50 0\ncpu0 9 9\n"},
    {"proc/net/dev", loAfter + ethAfter},
    {"sys/block/sda/stat", disk("1400", "2800", "4000")},
};

} // namespace

class LinuxMetricsTest : public QObject
{
    Q_OBJECT

    // clang-format off
    static void row(const char* tag, const Files& first, const Files& second, const char* expected)
    {
        QTest::newRow(tag) << first << second << QString::fromUtf8(expected);
    }

    static void addDisks()
    {
        Files doubles;
        Files doublesAfter;
        for (const QByteArray name : {"loop0", "ram0", "zram0", "dm-0", "md127", "sr0", "fd0", "sda/sda1", "nvme0n1"}) {
            doubles.append({"sys/block/" + name + "/stat", disk("0", "0", "0")});
            doublesAfter.append({"sys/block/" + name + "/stat", disk("9999", "9999", "1999")});
        }
        doubles += Files{{"sys/block/nvme0n1/device/subsystem", "->/sys/class/nvme-subsystem"}, {"sys/block/sr0/device/", {}}, {"sys/block/fd0/device/", {}}};
        row("none physical", doubles + Files{{"sys/block/sda", "-"}, {"sys/block/nbd0/stat", disk("0", "0", "0")}}, doublesAfter + Files{{"sys/block/sda", "-"}, {"sys/block/nbd0/stat", disk("4", "8", "20")}}, "disk 1 1 2");
        doubles.append({"sys/block/nbd0/stat", disk("0", "0", "0")});
        doublesAfter.append({"sys/block/nbd0/stat", disk("9999", "9999", "1999")});
        // The disk of several paths, its only path, and a file where a disk should be.
        doubles += {{"sys/block/nvme0c0n1/device/subsystem", "->/sys/class/nvme"}, {"sys/block/nvme0c0n1/stat", disk("0", "0", "0")}, {"sys/block/x", {}}};
        row("each byte once", doubles, doublesAfter + Files{{"sys/block/nvme0c0n1/stat", disk("4", "8", "1200")}}, "disk 60 101 202");
        const auto sda = [](const char* tag, const Files& second, const char* expected, const Files& first = {}) {
            row(tag, Files{{"sys/block/sdb/device/", {}}, {"sys/block/sdb/stat", disk("0", "0", "0")}} + first, Files{{"sys/block/sdb/stat", disk("4", "8", "20")}} + second, expected);
        };
        sda("two disks", {}, "disk 50 101 202");
        sda("pulled", {{"sys/block/sda", "-"}}, "disk 1 1 2");
        sda("plugged in", {{"sys/block/sdc/device/", {}}, {"sys/block/sdc/stat", disk("9999", "9999", "9999")}}, "disk 50 101 202");
        sda("replaced", {{"sys/block/sda/diskseq", "10\n"}}, "disk 1 1 2", {{"sys/block/sda/diskseq", "9\n"}});
        sda("not replaced", {}, "disk 50 101 202", {{"sys/block/sda/diskseq", "9\n"}});
        for (const QByteArray& stat : {disk("999", "2800", "4000"), disk("1400", "1999", "4000"), disk("1400", "2800", "2999"), disk("1400", "x", "4000"), QByteArray("7 7 1400 7")})
            sda(("backwards or damaged: " + stat.trimmed()).constData(), {{"sys/block/sda/stat", stat}}, "disk 1 1 2");
        sda("huge counters", {{"sys/block/sda/stat", disk(most, most, most)}}, "disk 100 1 2");
    }

    static void addInterfaces()
    {
        const auto net = [](const char* tag, const QByteArray& added, const char* expected, const Files& first = {}, const QByteArray& old = ethAfter) {
            row(tag, Files{{"proc/net/dev", lo + eth + link("wl0:", "0", "0")}} + first, {{"proc/net/dev", loAfter + old + added}}, expected);
        };
        const QByteArray wlan = link("wl0:", "2048", "4096");
        const Files device{{"sys/class/net/wl0/device/", {}}};
        net("virtual beside physical", wlan, "net 10 20.4883");
        net("two physical", wlan, "net 11 22.4883", device);
        net("under a virtual one", wlan, "net 11 22.4883", device + Files{{"sys/class/net/wl0/master/", {}}});
        net("under a physical one", wlan, "net 10 20.4883", device + Files{{"sys/class/net/wl0/master/device/", {}}});
        net("none physical", wlan, "net 11 22.4883", {{"sys/class/net/eth0/device", "-"}});
        const Files linked = device + Files{{"sys/class/net/wl0/iflink", "2\n"}, {"sys/class/net/eth0/ifindex", "2\n"}};
        const Files port = linked + Files{{"sys/class/net/wl0/uevent", "DEVTYPE=dsa\nINTERFACE=wl0\n"}};
        const Files conduit{{"sys/class/net/eth0/dsa/", {}}, {"sys/class/net/eth0/iflink", "2\n"}};
        net("a port and its conduit", wlan, "net 10 20.4883", port + conduit);
        net("a port of a virtual conduit", wlan, "net 10 20.4883", port + conduit + Files{{"sys/class/net/eth0/device", "-"}});
        net("linked to that number elsewhere", wlan, "net 11 22.4883", linked + conduit);
        net("a port without its conduit", wlan, "net 11 22.4883", port);
        net("gone", {}, "net 0 0", device, {});
        net("came", wlan + link("usb0: ", "9999", "9999"), "net 11 22.4883", device + Files{{"sys/class/net/usb0/device/", {}}});
        for (const QByteArray& old : {link("eth0: ", "999", "43960"), link("eth0: ", "21480", "1999"), link("eth0: ", most, most)})
            net(("backwards or huge: " + old.trimmed()).constData(), wlan, "net 1 2", device, old);
        net("damaged", wlan + ":\n:::\n\n../../block/sda: 9 9\n\xff: 1 1", "net 1 2", device, "eth0: 21480 7 7\n");
        net("cut line", wlan.chopped(1), "net 10 20.4883", device);
    }

private Q_SLOTS:
    void figures_data()
    {
        QTest::addColumn<Files>("first"); // Added to what is there before.
        QTest::addColumn<Files>("second"); // Added to what is there two seconds later.
        QTest::addColumn<QString>("expected");
        row("plain", {}, {}, "cpu 25|memory 400/1000 40|commit 650/2000 32.5|disk 50 100 200|net 10 20.4883");
        row("nothing there", {{"proc", "-"}, {"sys", "-"}}, {{"proc", "-"}, {"sys", "-"}}, "cpu 0|memory 0/0 0|commit 0/0 0|disk 0 0 0|net 0 0");

        const auto cpu = [](const char* tag, const QByteArray& stat, const char* expected) { row(tag, {}, {{"proc/stat", stat}}, expected); };
        cpu("each kind of time", "cpu  101 2 103 704 105 6 7 8 999 999\n", "cpu 75");
        cpu("iowait backwards", "cpu  200 0 100 800 50 0 0 0 0 0\n", "cpu 50");
        cpu("huge times", "cpu  " + most + " 0 100 " + most + " 100 0 0 " + most + "\n", "cpu 66.6667");
        for (const QByteArray stat : {"cpu  18446744073709551616 0 100 800 100 0 0 0\n", "cpu  -1 0 100 800 100 0 0 0\n", "cpu  150 0 100 800\n", "cpu  150 0 100 800 150 0 0 0", "cpu0  150 0 100 800 150 0 0 0\n"})
            cpu(("damaged: " + stat.trimmed()).constData(), stat, "cpu 0");

        const auto memory = [](const char* tag, const QByteArray& text, const char* expected, const QByteArray& mode = "0\n") {
            row(tag, {{"proc/meminfo", text}, {"proc/sys/vm/overcommit_memory", mode}}, {}, expected);
        };
        memory("promises count", meminfo + swapInfo, "commit 1200/1500 80", "2\n");
        memory("promises beyond the limit", "CommitLimit: 1500 kB\nCommitted_AS: 3000 kB\n", "commit 3000/1500 100", "2\n");
        memory("promises do not count", meminfo + swapInfo, "commit 650/2000 32.5", "1\n");
        memory("no estimate", QByteArray(meminfo).replace("MemAvailable", "x") + swapInfo, "memory 700/1000 70|commit 950/2000 47.5");
        memory("only a total", "MemTotal: 1000 kB\nSwapTotal: 1000 kB\n", "memory 0/1000 0|commit 0/2000 0");
        memory("more available than there is", "MemTotal: 1000 kB\nMemAvailable: 1001 kB\n", "memory 0/1000 0");
        memory("huge", "MemTotal: 9007199254740993 kB\nMemAvailable: 1 kB\n" + swapInfo, "memory 0/0 0|commit 250/1000 25");
        memory("damaged", "MemTotal: -5 kB\nMemFree\n:\nMemAvailable: x\n" + swapInfo, "memory 0/0 0|commit 250/1000 25");
        memory("cut", "MemTotal: 1000 kB\nMemAvailable: 60", "memory 0/1000 0");
        addDisks();
        addInterfaces();
    }
    // clang-format on
    void figures()
    {
        QFETCH(Files, first);
        QFETCH(Files, second);
        QFETCH(QString, expected);
        const QTemporaryDir directory;
        const QByteArray root = directory.path().toUtf8();
        linux_platform::LoadSampler sampler(root + "/proc", root + "/sys");
        writeFiles(before + first, QDir(directory.path()));
        const QString primed = shown(sampler.sample(1h));
        QVERIFY2(primed.startsWith(u"cpu 0|"_s), qPrintable(primed));
        QVERIFY2(primed.endsWith(u"|disk 0 0 0|net 0 0"_s), qPrintable(primed));
        writeFiles(after + second, QDir(directory.path()));
        QCOMPARE(shown(sampler.sample(1h)),
                 primed); // No time has passed, and nothing is forgotten.
        const QString measured = shown(sampler.sample(1h + 2s));
        QVERIFY2((u'|' + measured + u'|').contains(u'|' + expected + u'|'), qPrintable(measured));
    }

    void memoryAsFreeSaysIt()
    {
        SystemMetrics memory;
        platform::sampleMemoryOnly(memory);
        QProcess process;
        process.start(u"free"_s, {u"-b"_s});
        QVERIFY(process.waitForFinished());
        const QByteArrayList words = process.readAllStandardOutput().simplified().split(' ');
        QCOMPARE(words.value(6), "Mem:");
        QCOMPARE(words.value(13), "Swap:");
        QCOMPARE(memory.memoryTotalBytes, words.at(7).toULongLong());
        constexpr double tolerance = 128 << 20; // For what others take and give back meanwhile.
        const double used = words.at(7).toDouble() - words.at(12).toDouble();
        QVERIFY(std::abs(static_cast<double>(memory.memoryUsedBytes) - used) < tolerance);
        if (contentOf(u"/proc/sys/vm/overcommit_memory"_s).trimmed() == "2")
            return;
        QCOMPARE(memory.commitLimitBytes,
                 words.at(7).toULongLong() + words.value(14).toULongLong());
        QVERIFY(std::abs(static_cast<double>(memory.commitChargeBytes) - used -
                         words.value(15).toDouble()) < tolerance);
    }

    void diskWhileAFileIsWritten()
    {
        constexpr qsizetype words = 4 << 20;
        QList<quint32> noise(words); // Which no file system packs.
        QRandomGenerator(1).fillRange(noise.data(), words);
        const QByteArray data(reinterpret_cast<const char*>(noise.constData()), words * 4);
        QTemporaryFile file(QCoreApplication::applicationDirPath() + u"/XXXXXX"_s);
        if (!file.open())
            QSKIP("the build may not be written to");
        const Enclosed enclosed(diskCounters, [&file, &data] {
            file.write(data);
            file.flush();
            ::fsync(file.handle());
            ::posix_fadvise(file.handle(), 0, 0, POSIX_FADV_DONTNEED);
            file.seek(0);
            file.readAll();
        });
        if (enclosed.inner.at(1) < static_cast<double>(data.size()) / 1024)
            QSKIP("the build is on no disk of this machine");
        const SystemMetrics& sample = enclosed.sample;
        QVERIFY2(enclosed.holds(sample.diskReadKbs, 0), qPrintable(shown(sample)));
        QVERIFY2(enclosed.holds(sample.diskWriteKbs, 1), qPrintable(shown(sample)));
        QVERIFY2(sample.diskPercent > 0 && sample.diskPercent <= 100, qPrintable(shown(sample)));
    }

    void networkOfANamespace()
    {
        QProcess process;
        process.start(QCoreApplication::applicationFilePath(), {u"--network"_s});
        QVERIFY(process.waitForFinished(60'000));
        if (process.exitCode() == refused)
            QSKIP("this machine refuses namespaces, or a link between them");
        QCOMPARE(process.readAllStandardOutput(), "measured\n");
    }
};

namespace {

/// A socket that sends frames over a link.
int frameSocket(const char* link)
{
    const int handle = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(0x88b5); // Kept free for experiments.
    address.sll_ifindex = static_cast<int>(::if_nametoindex(link));
    return ::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? handle
                                                                                            : -1;
}

/// Links a network namespace with another, and measures in it while bytes go both ways.
int measureNetwork()
{
    const QByteArray asRoot =
        "0 " + QByteArray::number(::getuid()) + " 1"; // Or "ip" may do nothing.
    bool isolated = ::unshare(CLONE_NEWNET | CLONE_NEWNS) == 0;
    if (!isolated && ::unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) == 0) {
        QFile map(u"/proc/self/uid_map"_s);
        isolated = map.open(QFile::WriteOnly | QFile::Unbuffered) && map.write(asRoot) > 0;
    }
    const int far = ::open("/proc/self/ns/net", O_RDONLY);
    if (!isolated || ::unshare(CLONE_NEWNET) != 0)
        return refused;
    const int near = ::open("/proc/self/ns/net", O_RDONLY);
    const QByteArray makeLink =
        "ip link add near type veth peer name far && ip link set near up && ip link set lo up && "
        "ip link set far netns /proc/self/fd/" +
        QByteArray::number(far);
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", "/sys", "sysfs", 0, nullptr) != 0 ||
        std::system(makeLink.constData()) != 0 || ::setns(far, CLONE_NEWNET) != 0 ||
        std::system("ip link set far up") != 0)
        return refused;
    const int farSocket = frameSocket("far");
    if (::setns(near, CLONE_NEWNET) != 0)
        return refused;
    const int nearSocket = frameSocket("near");
    const int loopback = frameSocket("lo");
    for (int i = 0; i < 500 && contentOf(u"/sys/class/net/near/operstate"_s) != "up\n"; ++i)
        QTest::qSleep(10);
    QTest::qSleep(100);

    QList<double> carried{0, 0}; // KiB received and sent.
    const QByteArray frame(1024, '\xff');
    const auto send = [&frame](int handle) {
        return ::send(handle, frame.constData(), 1024, 0) == 1024 ? 1 : 0;
    };
    const auto sendAll = [&] {
        for (int i = 0; i < 1000; ++i) {
            send(loopback);
            carried[0] += i < 300 ? send(farSocket) : 0;
            carried[1] += i < 500 ? send(nearSocket) : 0;
        }
        QTest::qSleep(100);
    };
    const Enclosed enclosed([&carried] { return carried; }, sendAll);
    const bool agrees = carried == QList<double>{300, 500} &&
                        enclosed.holds(enclosed.sample.netRecvKbs, 0) &&
                        enclosed.holds(enclosed.sample.netSendKbs, 1);
    std::cout << (agrees ? "measured\n" : shown(enclosed.sample).toStdString());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && QByteArrayView(argv[1]) == "--network")
        return measureNetwork();
    QCoreApplication application(argc, argv);
    LinuxMetricsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_linux_metrics.moc"
