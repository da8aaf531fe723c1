// Tests the load figures on directories of the shape of /proc and /sys, and on this machine beside
// what other tools and counters of the system say in the same moment.
#include "platform/linux/metrics/load_sampler.h"
#include "platform/metrics.h"
#include "support/system.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTextStream>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using test::readFile;

namespace {

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

/// KiB read from and written to whole disks, which are told by their names.
QList<double> diskCounters()
{
    static const QRegularExpression disks(
        u"^([svh]d[a-z]+|xvd[a-z]+|sr\\d+|mmcblk\\d+(boot\\d)?|nvme\\d+n\\d+)$"_s);
    QList<double> kib{0, 0};
    for (const QByteArray& line : readFile(u"/proc/diskstats"_s).split('\n')) {
        const QByteArrayList words = line.simplified().split(' ');
        if (words.size() > 13 && disks.match(QString::fromUtf8(words.at(2))).hasMatch()) {
            kib[0] += words.at(5).toDouble() / 2;
            kib[1] += words.at(9).toDouble() / 2;
        }
    }
    return kib;
}

/// Files with ';' behind each: "path=content", "path/" for a directory, "path=-" for nothing there
/// any more, "path>x" for a link to x.
void writeFiles(const QByteArray& files, const QString& root)
{
    for (const QByteArray& file : files.split(';')) {
        const qsizetype end = std::max(file.indexOf('='), file.indexOf('>'));
        const QString path = root + u'/' + QString::fromUtf8(end < 0 ? file : file.first(end));
        const QByteArray content = file.sliced(end + 1);
        QDir().mkpath(path.left(path.lastIndexOf(u'/')));
        if (content == "-")
            test::shell("rm -rf $0", {path});
        else if (end > 0 && file[end] == '>')
            QFile::link(QString::fromUtf8(content), path);
        else if (end > 0)
            test::writeFile(path, content);
    }
}

/// What a disk tells: sectors read and written, and how many milliseconds it was busy.
QByteArray disk(const QByteArray& name, const QByteArray& read, const QByteArray& written,
                const QByteArray& busy)
{
    return "sys/block/" + name + "/stat= 7 7 " + read + " 7 7 7 " + written + " 7 7 " + busy +
           " 9999999 7 7 7 7\n;";
}

/// A line of /proc/net/dev.
QByteArray link(const QByteArray& name, const QByteArray& received, const QByteArray& sent)
{
    return name + received + " 7 7 7 7 7 7 7 " + sent + " 7 7 7 7 7 7 7\n";
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
const QByteArray swapInfo = "SwapTotal: 1000 kB\nSwapFree: 750 kB\n";
const QByteArray meminfo = "MemTotal:  1000 kB\nMemFree: 100 kB\nMemAvailable: 600 kB\nBuffers: 50 "
                           "kB\nCached: 150 kB\nCommitLimit: 1500 kB\nCommitted_AS: 1200 kB\n";
const QByteArray lo = link("    lo: ", "5", "5");
const QByteArray loAfter = link("    lo: ", "5000000", "5000000");
const QByteArray eth = link("  eth0: ", "1000", "2000");
const QByteArray ethAfter = link("  eth0: ", "21480", "43960"); // 20 and 40.97 KiB more

const QByteArray before = "proc/stat=cpu  100 0 100 700 100 0 0 0 0 0\ncpu0 9 9\n;"
                          "proc/meminfo=" +
                          meminfo + swapInfo +
                          ";proc/sys/vm/overcommit_memory=0\n;"
                          "proc/net/dev=Inter-| Receive | Transmit\n face |bytes |bytes\n" +
                          lo + eth +
                          ";"
                          "sys/class/net/eth0/device/;sys/block/sda/device/;" +
                          disk("sda", "1000", "2000", "3000");
/// Two seconds later.
const QByteArray after =
    "proc/stat=cpu  150 0 100 800 150 0 0 0 50 0\ncpu0 9 9\n;proc/net/dev=" + loAfter + ethAfter +
    ";" + disk("sda", "1400", "2800", "4000");

/// Adds a row: what there is besides at first, and two seconds later, and one of the figures.
void row(const QByteArray& tag, const QByteArray& first, const QByteArray& second,
         const QByteArray& expected)
{
    QTest::newRow(tag.constData()) << first << second << QString::fromUtf8(expected);
}

void addProcessors()
{
    const auto cpu = [](const QByteArray& tag, const QByteArray& stat, const char* expected) {
        row(tag, {}, "proc/stat=" + stat + ';', expected);
    };
    cpu("each kind of time", "cpu  101 2 103 704 105 6 7 8 999 999\n", "cpu 75");
    cpu("iowait backwards", "cpu  200 0 100 800 50 0 0 0 0 0\n", "cpu 50");
    cpu("huge times", "cpu  " + most + " 0 100 " + most + " 100 0 0 " + most + '\n', "cpu 66.6667");
    for (const QByteArray stat :
         {"cpu  18446744073709551616 0 100 800 100 0 0 0\n", "cpu  -1 0 100 800 100 0 0 0\n",
          "cpu  150 0 100 800\n", "cpu  150 0 100 800 150 0 0 0",
          "cpu0  150 0 100 800 150 0 0 0\n"})
        cpu("damaged: " + stat.trimmed(), stat, "cpu 0");
}

void addMemory()
{
    const auto memory = [](const char* tag, const QByteArray& text, const char* expected,
                           const QByteArray& mode = "0\n") {
        row(tag, "proc/meminfo=" + text + ";proc/sys/vm/overcommit_memory=" + mode + ';', {},
            expected);
    };
    memory("promises count", meminfo + swapInfo, "commit 1200/1500 80", "2\n");
    memory("promises beyond the limit", "CommitLimit: 1500 kB\nCommitted_AS: 3000 kB\n",
           "commit 3000/1500 100", "2\n");
    memory("promises do not count", meminfo + swapInfo, "commit 650/2000 32.5", "1\n");
    memory("no estimate", QByteArray(meminfo).replace("MemAvailable", "x") + swapInfo,
           "memory 700/1000 70|commit 950/2000 47.5");
    memory("only a total", "MemTotal: 1000 kB\nSwapTotal: 1000 kB\n",
           "memory 0/1000 0|commit 0/2000 0");
    memory("more available than there is", "MemTotal: 1000 kB\nMemAvailable: 1001 kB\n",
           "memory 0/1000 0");
    const char* unknown = "memory 0/0 0|commit 250/1000 25";
    memory("huge", "MemTotal: 9007199254740993 kB\nMemAvailable: 1 kB\n" + swapInfo, unknown);
    memory("damaged", "MemTotal: -5 kB\nMemFree\n:\nMemAvailable: x\n" + swapInfo, unknown);
    memory("cut", "MemTotal: 1000 kB\nMemAvailable: 60", "memory 0/1000 0");
}

void addDisks()
{
    QByteArray doubles = "sys/block/nvme0n1/device/subsystem>/sys/class/nvme-subsystem;"
                         "sys/block/sr0/device/;sys/block/fd0/device/;";
    QByteArray doublesAfter;
    for (const char* name :
         {"loop0", "ram0", "zram0", "dm-0", "md127", "sr0", "fd0", "sda/sda1", "nvme0n1"}) {
        doubles += disk(name, "0", "0", "0");
        doublesAfter += disk(name, "9999", "9999", "1999");
    }
    row("none physical", doubles + "sys/block/sda=-;" + disk("nbd0", "0", "0", "0"),
        doublesAfter + "sys/block/sda=-;" + disk("nbd0", "4", "8", "20"), "disk 1 1 2");
    // The disk of several paths, its only path, and a file where a disk should be.
    row("each byte once",
        doubles + disk("nbd0", "0", "0", "0") + disk("nvme0c0n1", "0", "0", "0") +
            "sys/block/nvme0c0n1/device/subsystem>/sys/class/nvme;sys/block/x=;",
        doublesAfter + disk("nbd0", "9999", "9999", "1999") + disk("nvme0c0n1", "4", "8", "1200"),
        "disk 60 101 202");
    const auto two = [](const QByteArray& tag, const QByteArray& second, const char* expected,
                        const QByteArray& first = {}) {
        row(tag, "sys/block/sdb/device/;" + disk("sdb", "0", "0", "0") + first,
            disk("sdb", "4", "8", "20") + second, expected);
    };
    two("two disks", {}, "disk 50 101 202");
    two("pulled", "sys/block/sda=-;", "disk 1 1 2");
    two("plugged in", "sys/block/sdc/device/;" + disk("sdc", "9999", "9999", "9999"),
        "disk 50 101 202");
    const QByteArray ninth = "sys/block/sda/diskseq=9\n;";
    two("replaced", "sys/block/sda/diskseq=10\n;", "disk 1 1 2", ninth);
    two("not replaced", {}, "disk 50 101 202", ninth);
    for (const QByteArray& damaged :
         {disk("sda", "999", "2800", "4000"), disk("sda", "1400", "1999", "4000"),
          disk("sda", "1400", "2800", "2999"), disk("sda", "1400", "x", "4000"),
          QByteArray("sys/block/sda/stat=7 7 1400 7;")})
        two("backwards or damaged: " + damaged.trimmed(), damaged, "disk 1 1 2");
    two("huge counters", disk("sda", most, most, most), "disk 100 1 2");
}

void addInterfaces()
{
    const auto net = [](const QByteArray& tag, const QByteArray& added, const char* expected,
                        const QByteArray& first = {}, const QByteArray& second = ethAfter) {
        row(tag, "proc/net/dev=" + lo + eth + link("wl0:", "0", "0") + ';' + first,
            "proc/net/dev=" + loAfter + second + added + ';', expected);
    };
    const QByteArray wlan = link("wl0:", "2048", "4096");
    const char* alone = "net 10 20.4883";
    const char* both = "net 11 22.4883";
    const QByteArray device = "sys/class/net/wl0/device/;";
    const QByteArray noEthernet = "sys/class/net/eth0/device=-;";
    net("virtual beside physical", wlan, alone);
    net("two physical", wlan, both, device);
    net("under a virtual one", wlan, both, device + "sys/class/net/wl0/master/;");
    net("under a physical one", wlan, alone, device + "sys/class/net/wl0/master/device/;");
    net("none physical", wlan, both, noEthernet);
    const QByteArray linked =
        device + "sys/class/net/wl0/iflink=2\n;sys/class/net/eth0/ifindex=2\n;";
    const QByteArray port = linked + "sys/class/net/wl0/uevent=DEVTYPE=dsa\nINTERFACE=wl0\n;";
    const QByteArray conduit = "sys/class/net/eth0/dsa/;sys/class/net/eth0/iflink=2\n;";
    net("a port and its conduit", wlan, alone, port + conduit);
    net("a port of a virtual conduit", wlan, alone, port + conduit + noEthernet);
    net("linked to that number elsewhere", wlan, both, linked + conduit);
    net("a port without its conduit", wlan, both, port);
    net("gone", {}, "net 0 0", device, {});
    net("came", wlan + link("usb0: ", "9999", "9999"), both,
        device + "sys/class/net/usb0/device/;");
    for (const QByteArray& second : {link("eth0: ", "999", "43960"),
                                     link("eth0: ", "21480", "1999"), link("eth0: ", most, most)})
        net("backwards or huge: " + second.trimmed(), wlan, "net 1 2", device, second);
    net("damaged", wlan + ":\n:::\n\n../../block/sda: 9 9\n\xff: 1 1", "net 1 2", device,
        "eth0: 21480 7 7\n");
    net("cut line", wlan.chopped(1), alone, device);
}

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

/// Links a network namespace with another, and measures in it while bytes go both ways: "measured",
/// or what disagrees.
QString measureNetwork()
{
    // In a user namespace as root, or "ip" may do nothing.
    const QByteArray asRoot = "0 " + QByteArray::number(::getuid()) + " 1";
    if (!test::makeMountsOwn(CLONE_NEWNET)) {
        if (!test::makeMountsOwn(CLONE_NEWUSER | CLONE_NEWNET))
            ::_exit(test::refusedCode);
        test::writeFile(u"/proc/self/uid_map"_s, asRoot);
    }
    const int far = ::open("/proc/self/ns/net", O_RDONLY);
    const int near = ::unshare(CLONE_NEWNET) == 0 ? ::open("/proc/self/ns/net", O_RDONLY) : -1;
    const QByteArray makeLink =
        "mount -t sysfs none /sys && ip link add near type veth peer name far && "
        "ip link set near up && ip link set lo up && ip link set far netns /proc/self/fd/" +
        QByteArray::number(far);
    if (near < 0 || std::system(makeLink.constData()) != 0 || ::setns(far, CLONE_NEWNET) != 0 ||
        std::system("ip link set far up") != 0)
        ::_exit(test::refusedCode);
    const int farSocket = frameSocket("far");
    if (::setns(near, CLONE_NEWNET) != 0)
        ::_exit(test::refusedCode);
    const int nearSocket = frameSocket("near");
    const int loopback = frameSocket("lo");
    for (int i = 0; i < 500 && readFile(u"/sys/class/net/near/operstate"_s) != "up\n"; ++i)
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
    return agrees ? u"measured"_s : shown(enclosed.sample);
}

} // namespace

class LinuxMetricsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void figures_data()
    {
        QTest::addColumn<QByteArray>("first");
        QTest::addColumn<QByteArray>("second");
        QTest::addColumn<QString>("expected");
        row("plain", {}, {},
            "cpu 25|memory 400/1000 40|commit 650/2000 32.5|disk 50 100 200|net 10 20.4883");
        row("nothing there", "proc=-;sys=-;", "proc=-;sys=-;",
            "cpu 0|memory 0/0 0|commit 0/0 0|disk 0 0 0|net 0 0");
        addProcessors();
        addMemory();
        addDisks();
        addInterfaces();
    }
    void figures()
    {
        QFETCH(QByteArray, first);
        QFETCH(QByteArray, second);
        QFETCH(QString, expected);
        const QTemporaryDir directory;
        const QByteArray root = directory.path().toUtf8();
        const linux_platform::LoadSampler sampler(root + "/proc", root + "/sys");
        LoadCounters before;
        const auto sampled = [&](std::chrono::nanoseconds now) {
            SystemMetrics sample;
            sampler.sample(before, now, sample);
            return shown(sample);
        };
        writeFiles(::before + first, directory.path());
        const QString primed = sampled(1h);
        QVERIFY2(primed.startsWith(u"cpu 0|"_s), qPrintable(primed));
        QVERIFY2(primed.endsWith(u"|disk 0 0 0|net 0 0"_s), qPrintable(primed));
        writeFiles(after + second, directory.path());
        // No time has passed, and nothing is forgotten.
        QCOMPARE(sampled(1h), primed);
        const QString measured = sampled(1h + 2s);
        QVERIFY2((u'|' + measured + u'|').contains(u'|' + expected + u'|'), qPrintable(measured));
    }

    void memoryAsFreeSaysIt()
    {
        constexpr double tolerance = 128 << 20; // For what others take and give back meanwhile.
        // By mode 2 the charge is what was promised: see the table.
        const bool isStrict = readFile(u"/proc/sys/vm/overcommit_memory"_s).trimmed() == "2";
        SystemMetrics memory;
        QStringList words;
        const auto isNear = [](quint64 bytes, double expected) {
            return std::abs(static_cast<double>(bytes) - expected) < tolerance;
        };
        const auto agree = [&] {
            platform::sampleMemoryOnly(memory);
            words = test::shell("free -b").simplified().split(u' ');
            const double used = words.value(7).toDouble() - words.value(12).toDouble();
            return isNear(memory.memoryUsedBytes, used) &&
                   (isStrict ||
                    isNear(memory.commitChargeBytes, used + words.value(15).toDouble()));
        };
        QTRY_VERIFY_WITH_TIMEOUT(agree(), 20'000);
        QCOMPARE(words.value(6) + words.value(13), u"Mem:Swap:"_s);
        const quint64 total = words.at(7).toULongLong();
        QCOMPARE(memory.memoryTotalBytes, total);
        if (!isStrict)
            QCOMPARE(memory.commitLimitBytes, total + words.value(14).toULongLong());
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
        const QString answer = test::played(measureNetwork);
        if (answer.isEmpty())
            QSKIP("this machine refuses namespaces, or a link between them");
        QCOMPARE(answer, u"measured"_s);
    }
};

QTEST_GUILESS_MAIN(LinuxMetricsTest)
#include "tst_linux_metrics.moc"
