// Tests the load figures on directories of the shape of /proc and /sys, and on this machine beside
// what other tools and counters of the system say in the same moment.
#include "platform/linux/metrics/load_sampler.h"
#include "platform/metrics.h"
#include "support/system.h"

#include <QRegularExpression>

using namespace korvane;
using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using test::shell;

namespace {

QString shown(const SystemMetrics& m)
{
    return QString::asprintf(
        "cpu %g|memory %llu/%llu %g|commit %llu/%llu %g|disk %g %g %g|net %g %g", m.cpuPercent,
        m.memoryUsedBytes / 1024, m.memoryTotalBytes / 1024, m.memoryPercent,
        m.commitChargeBytes / 1024, m.commitLimitBytes / 1024, m.commitPercent, m.diskPercent,
        m.diskReadKbs, m.diskWriteKbs, m.netRecvKbs, m.netSendKbs);
}

/// What the scripts below write their files with. Of disks: sectors read and written, and how many
/// milliseconds they were busy; of interfaces: bytes received and sent.
const QByteArray tools = R"(
cd "$0"; n=sys/class/net; mode=proc/sys/vm/overcommit_memory; most=18446744073709551615
cpu() { printf 'cpu  %s\ncpu0 9 9\n' "$*" >proc/stat; }
mem() { printf '%s: %s kB\n' "$@" >proc/meminfo; }
disk() { echo " 7 7 $2 7 7 7 $3 7 7 $4 9999999 7 7 7 7" >sys/block/$1/stat; }
uncounted='loop0 ram0 zram0 dm-0 md127 sr0 fd0 sda/sda1 nvme0n1'
disks() { for i in $uncounted; do disk $i $1 $1 $2; done; }
net() { printf '%6s:%8s 7 7 7 7 7 7 7 %s 7 7 7 7 7 7 7\n' "$@" >>proc/net/dev; }
instead() { sed -i "/$1/d" proc/net/dev; net "$@"; }
linked() { echo 2 | tee $n/wl0/iflink >$n/eth0/ifindex; }
port() { linked; printf 'DEVTYPE=dsa\nINTERFACE=wl0\n' >$n/wl0/uevent; }
conduit() { mkdir $n/eth0/dsa; echo 2 >$n/eth0/iflink; }
)";

const QByteArray before = tools + R"(
mkdir -p proc/net proc/sys/vm $n/eth0/device $n/wl0/device sys/block
cd sys/block
mkdir -p $uncounted nbd0 sda/device sdb/device sr0/device fd0/device nvme0n1/device
ln -s /sys/class/nvme-subsystem nvme0n1/device/subsystem
cd ../..
cpu 100 0 100 700 100 0 0 0 0 0
mem MemTotal 1000 MemFree 100 MemAvailable 600 Buffers 50 Cached 150 \
    CommitLimit 1500 Committed_AS 1200 SwapTotal 1000 SwapFree 750
echo 0 >$mode
disk sda 1000 2000 3000; disk sdb 0 0 0; disk nbd0 0 0 0; disks 0 0
printf 'Inter-| Receive | Transmit\n face |bytes |bytes\n' >proc/net/dev
net lo 5 5; net eth0 1000 2000; net wl0 0 0
)";

/// Two seconds later; by eth0 went 20 and 40.97 KiB.
const QByteArray after = tools + R"(
cpu 150 0 100 800 150 0 0 0 50 0
disk sda 1400 2800 4000; disk sdb 4 8 20; disk nbd0 4 8 20; disks 9999 1999
echo >proc/net/dev; net lo 5000000 5000000; net eth0 21480 43960; net wl0 2048 4096
)";

// clang-format off
/// What is different at first, and two seconds later, and figures that are shown then.
const test::Cases<const char*, const char*, const char*> figureCases{
    {"plain", "", "",
     "cpu 25|memory 400/1000 40|commit 650/2000 32.5|disk 50 101 202|net 11 22.4883"},
    {"nothing there", "", "rm -r proc sys", "cpu 0|memory 0/0 0|commit 0/0 0|disk 0 0 0|net 0 0"},

    {"each kind of time", "", "cpu 101 2 103 704 105 6 7 8 999 999", "cpu 75"},
    {"iowait backwards", "", "cpu 200 0 100 800 50 0 0 0 0 0", "cpu 50"},
    {"huge times", "", "cpu $most 0 100 $most 100 0 0 $most", "cpu 66.6667"},
    {"times beyond 64 bits", "", "cpu 18446744073709551616 0 100 800 100 0 0 0", "cpu 0"},
    {"negative time", "", "cpu -1 0 100 800 100 0 0 0", "cpu 0"},
    {"few times", "", "cpu 150 0 100 800", "cpu 0"},
    {"cut times", "", "printf 'cpu  150 0 100 800 150 0 0 0' >proc/stat", "cpu 0"},
    {"no times before", "rm proc/stat", "", "cpu 0"},
    {"one processor", "", "echo 'cpu0  150 0 100 800 150 0 0 0' >proc/stat", "cpu 0"},

    {"promises count", "echo 2 >$mode", "", "commit 1200/1500 80"},
    {"promises beyond the limit", "echo 2 >$mode; mem CommitLimit 1500 Committed_AS 3000", "",
     "commit 3000/1500 100"},
    {"promises do not count", "echo 1 >$mode", "", "commit 650/2000 32.5"},
    {"no estimate", "sed -i s/MemAvailable/x/ proc/meminfo", "",
     "memory 700/1000 70|commit 950/2000 47.5"},
    {"only a total", "mem MemTotal 1000 SwapTotal 1000", "", "memory 0/1000 0|commit 0/2000 0"},
    {"more available than there is", "mem MemTotal 1000 MemAvailable 1001", "", "memory 0/1000 0"},
    {"huge memory", "mem MemTotal 9007199254740993 MemAvailable 1 SwapTotal 1000 SwapFree 750", "",
     "memory 0/0 0|commit 250/1000 25"},
    {"damaged memory",
     "sed -i 's/MemTotal: /&-/; s/Available: /&x/; s/MemFree.*/MemFree/; 2i:' proc/meminfo", "",
     "memory 0/0 0|commit 250/1000 25"},
    {"cut memory", "printf 'MemTotal: 1000 kB\nMemAvailable: 60' >proc/meminfo", "",
     "memory 0/1000 0"},

    {"no physical disk", "rm -r sys/block/sd[ab]/device", "", "disk 50 102 204"},
    // The only path of a disk of several, and a file where a disk should be.
    {"each byte once", "cd sys/block; touch x; mkdir -p nvme0c0n1/device; cd ../..;"
     "disk nvme0c0n1 0 0 0; ln -s /sys/class/nvme sys/block/nvme0c0n1/device/subsystem",
     "disk nvme0c0n1 4 8 1200", "disk 60 102 204"},
    {"pulled", "", "rm -r sys/block/sda; sed -i /0:/d proc/net/dev", "disk 1 1 2|net 0 0"},
    {"plugged in", "", "mkdir -p sys/block/sdc/device; disk sdc 9999 9999 9999", "disk 50 101 202"},
    {"replaced", "echo 9 >sys/block/sda/diskseq", "echo 10 >sys/block/sda/diskseq", "disk 1 1 2"},
    {"not replaced", "echo 9 >sys/block/sda/diskseq", "", "disk 50 101 202"},
    {"input backwards", "", "disk sda 999 2800 4000; instead eth0 999 43960", "disk 1 1 2|net 1 2"},
    {"output backwards", "", "disk sda 1400 1999 4000; instead eth0 21480 1999",
     "disk 1 1 2|net 1 2"},
    {"time backwards", "", "disk sda 1400 2800 2999", "disk 1 1 2"},
    {"damaged disk", "", "disk sda 1400 x 4000", "disk 1 1 2"},
    {"cut disk", "", "echo 7 7 1400 7 >sys/block/sda/stat", "disk 1 1 2"},
    {"huge", "", "disk sda $most $most $most; instead eth0 $most $most", "disk 100 1 2|net 1 2"},

    {"virtual beside physical", "rmdir $n/wl0/device", "", "net 10 20.4883"},
    {"no physical interface", "rmdir $n/*/device", "", "net 11 22.4883"},
    {"under a virtual one", "mkdir $n/wl0/master", "", "net 11 22.4883"},
    {"under a physical one", "mkdir -p $n/wl0/master/device", "", "net 10 20.4883"},
    {"a port and its conduit", "port; conduit", "", "net 10 20.4883"},
    {"a port of a virtual conduit", "port; conduit; rmdir $n/eth0/device", "", "net 10 20.4883"},
    {"linked to that number elsewhere", "linked; conduit", "", "net 11 22.4883"},
    {"a port without its conduit", "port", "", "net 11 22.4883"},
    {"came", "mkdir -p $n/usb0/device", "net usb0 9999 9999", "net 11 22.4883"},
    {"damaged interfaces", "", "sed -i s,eth0:.*,eth0:21480\\ 7\\ 7, proc/net/dev;"
     R"(printf ':\n:::\n\n../../block/sda: 9 9\n\377: 1 1' >>proc/net/dev)",
     "net 1 2"},
    {"cut interface", "", "truncate -s -1 proc/net/dev", "net 10 20.4883"},
};
// clang-format on

} // namespace

class LinuxMetricsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void figures_data() { test::addRows(figureCases); }
    void figures()
    {
        const auto& [name, first, second, expected] = test::currentRow(figureCases);
        const QTemporaryDir directory;
        const QByteArray root = directory.path().toUtf8();
        const linux_platform::LoadSampler sampler(root + "/proc", root + "/sys");
        LoadCounters counters;
        const auto sampled = [&](std::chrono::nanoseconds now) {
            SystemMetrics sample;
            sampler.sample(counters, now, sample);
            return shown(sample);
        };
        const QRegularExpression idle(u"^cpu 0[|].*[|]disk 0 0 0[|]net 0 0$"_s);
        shell(before + first, {directory.path()});
        QVERIFY(sampled(1h).contains(idle));
        shell(after + second, {directory.path()});
        QVERIFY(sampled(1h).contains(idle)); // No time has passed, and nothing is forgotten.
        const QString measured = sampled(1h + 2s);
        QVERIFY2((u'|' + measured + u'|').contains(u'|' + QLatin1String(expected) + u'|'),
                 qPrintable(measured));
    }

    void diskWhileAFileIsWritten()
    {
        QTemporaryFile file(QCoreApplication::applicationDirPath() + u"/XXXXXX"_s);
        if (!file.open())
            QSKIP("the build may not be written to");
        // Whole disks, by their names.
        const QByteArray count = R"(awk '
            $3 ~ /^([svh]d[a-z]+|xvd[a-z]+|sr[0-9]+|mmcblk[0-9]+(boot[0-9])?|nvme[0-9]+n[0-9]+)$/ {
                read += $6 / 2; written += $10 / 2
            }
            END { printf "%.1f %.1f\n", read, written }' /proc/diskstats
        )";
        LoadCounters counters;
        SystemMetrics sample;
        QString counted = shell(count);
        platform::sampleSystemMetrics(counters, sample);
        const auto begin = counters.takenAt;
        counted +=
            shell(count + "dd if=/dev/urandom of=$0 bs=1M count=16 conv=fsync 2>&-\n" + count,
                  {file.fileName()});
        platform::sampleSystemMetrics(counters, sample);
        const double seconds = std::chrono::duration<double>(counters.takenAt - begin).count();
        counted += shell(count);
        QList<double> kib;
        for (const QString& number : counted.simplified().split(u' '))
            kib += number.toDouble();
        SystemMetrics memoryOnly;
        platform::sampleMemoryOnly(memoryOnly);
        QCOMPARE(memoryOnly.memoryTotalBytes, sample.memoryTotalBytes);
        if (kib.value(5) - kib.value(3) < 16 << 10)
            QSKIP("the build is on no disk of this machine");
        // Between what is counted right inside and right outside of both samples.
        for (const auto& [rate, i] : {std::pair(sample.diskReadKbs, 0), {sample.diskWriteKbs, 1}})
            QVERIFY2(rate * seconds >= 0.999 * (kib[4 + i] - kib[2 + i]) &&
                         rate * seconds <= 1.001 * (kib[6 + i] - kib[i]),
                     qPrintable(shown(sample) + counted));
    }
};

QTEST_GUILESS_MAIN(LinuxMetricsTest)
#include "tst_linux_metrics.moc"
