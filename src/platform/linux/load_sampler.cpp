// Reading and parsing of the kernel's load counters, and what lies between two readings.
#include "platform/linux/load_sampler.h"

#include "platform/linux/proc_fs.h"
#include "platform/linux/text.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include <net/if.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

using Devices = QHash<QByteArray, LoadCounters::Device>;

/// The kernel counts processor time in hundredths of a second: over less, a share is chance.
constexpr std::chrono::milliseconds shortestInterval(10);

/// Far above what a machine has, so that no text can make us read without end.
constexpr qsizetype mostDevices = 4096;
constexpr qsizetype mostBytes = qsizetype{1} << 20;

/// No device is as fast: the counter was damaged, or another device's.
constexpr double impossibleKibPerSecond = double{1 << 30};

/// /sys/block counts in sectors of 512 bytes, whatever the disk's own are.
constexpr double kibPerSector = 0.5;
constexpr double kibPerByte = 1.0 / 1024;

QByteArray contentOf(const QByteArray& path, qsizetype limit = mostBytes)
{
    return readSystemFile(path.constData(), limit).value_or(QByteArray());
}

bool exists(const QByteArray& path)
{
    return ::access(path.constData(), F_OK) == 0;
}

/// Takes the next line off `rest`; none when no line feed ends it, since it may be cut.
std::optional<QByteArrayView> takeLine(QByteArrayView& rest)
{
    if (!rest.contains('\n'))
        return std::nullopt;
    return takeUntil(rest, '\n');
}

/// Fills `numbers` from the words of `line`; false when one is missing or not a number.
template <std::size_t N> bool parseNumbers(QByteArrayView line, std::array<quint64, N>& numbers)
{
    return std::all_of(numbers.begin(), numbers.end(),
                       [&line](quint64& number) { return parseNumber(takeWord(line), number); });
}

/// How far `value` is above `base`; 0 when it is below, as where a counter ran backwards.
quint64 excess(quint64 value, quint64 base)
{
    return value > base ? value - base : 0;
}

double percent(double part, double whole)
{
    return whole > 0 ? std::clamp(100 * part / whole, 0.0, 100.0) : 0;
}

double kibPerSecond(quint64 units, double kibPerUnit, double seconds)
{
    const double rate = static_cast<double>(units) * kibPerUnit / seconds;
    return rate < impossibleKibPerSecond ? rate : 0;
}

/// The text of /proc/meminfo, asked by name.
class MemoryInfo
{
public:
    explicit MemoryInfo(QByteArray content) : m_content(std::move(content)) {}

    /// Bytes; none when there is no such line, or no credible number in it.
    std::optional<quint64> find(QByteArrayView name) const
    {
        constexpr quint64 mostKib = quint64{1} << 50; // Sums of some in bytes fit a JSON integer.
        QByteArrayView rest = m_content;
        while (auto line = takeLine(rest)) {
            if (takeUntil(*line, ':') != name)
                continue;
            quint64 kib = 0;
            const bool credible = parseNumber(takeWord(*line), kib) && kib <= mostKib;
            return credible ? std::optional(kib * 1024) : std::nullopt;
        }
        return std::nullopt;
    }

    quint64 bytes(QByteArrayView name) const { return find(name).value_or(0); }

    /// What programs could still have; kernels before 3.14 do not say so themselves.
    std::optional<quint64> available() const
    {
        if (const auto estimate = find("MemAvailable"))
            return estimate;
        const auto unused = find("MemFree");
        return unused ? std::optional(*unused + bytes("Buffers") + bytes("Cached")) : std::nullopt;
    }

private:
    QByteArray m_content;
};

double busyPercent(const LoadCounters::CpuTicks& before, const LoadCounters::CpuTicks& now)
{
    constexpr std::size_t idle = 3;
    constexpr std::size_t waiting = 4; // For a disk, which is idle too; it may run backwards.
    double busyTicks = 0;
    double allTicks = 0;
    for (std::size_t kind = 0; kind < now.size(); ++kind) {
        const auto ticks = static_cast<double>(excess(now.at(kind), before.at(kind)));
        allTicks += ticks;
        if (kind != idle && kind != waiting)
            busyTicks += ticks;
    }
    return percent(busyTicks, allTicks);
}

/// The load of devices of one kind.
struct DeviceLoad
{
    double inKibPerSecond = 0;
    double outKibPerSecond = 0;
    double busiestPercent = 0;
};

/// A device counts if it was there all the time, with counters that only grew.
DeviceLoad loadBetween(const Devices& before, const Devices& now, double kibPerUnit, double seconds)
{
    DeviceLoad load;
    for (auto device = now.cbegin(); device != now.cend(); ++device) {
        const auto old = before.constFind(device.key());
        if (old == before.constEnd() || device->in < old->in || device->out < old->out ||
            device->busyMs < old->busyMs)
            continue;
        load.inKibPerSecond += kibPerSecond(device->in - old->in, kibPerUnit, seconds);
        load.outKibPerSecond += kibPerSecond(device->out - old->out, kibPerUnit, seconds);
        const auto busyMs = static_cast<double>(device->busyMs - old->busyMs);
        load.busiestPercent = std::max(load.busiestPercent, percent(busyMs, seconds * 1000));
    }
    return load;
}

/// When the load of a device is part of the machine's.
enum class Counts { Always, WhereNothingElseDoes, Never };

/// The devices of one kind, as they are found.
class FoundDevices
{
public:
    void insert(Counts counts, const QByteArray& key, const LoadCounters::Device& device)
    {
        (counts == Counts::Always ? m_physical : m_others).insert(key, device);
    }

    qsizetype size() const { return m_physical.size() + m_others.size(); }
    Devices counted() const { return m_physical.isEmpty() ? m_others : m_physical; }

private:
    Devices m_physical;
    Devices m_others;
};

/// When the entry `name` of /sys/block counts. What is made of others, or of memory, never does; it
/// has no device, but neither has a disk that a program serves (nbd). An NVMe disk of several paths
/// is there beside them, but the kernel counts its load only from 6.2 on: so the paths are counted.
Counts diskCounts(const QByteArray& path, QByteArrayView name)
{
    static constexpr std::array madeUp{"loop", "ram", "zram", "dm-", "md"};
    if (std::any_of(madeUp.begin(), madeUp.end(),
                    [name](const char* kind) { return name.startsWith(kind); }))
        return Counts::Never;
    if (!exists(path + "/device"))
        return Counts::WhereNothingElseDoes;
    std::error_code error;
    const auto subsystem =
        std::filesystem::read_symlink((path + "/device/subsystem").toStdString(), error);
    return subsystem.filename() == "nvme-subsystem" ? Counts::Never : Counts::Always;
}

/// When the interface at that path of /sys/class/net counts, where `conduits` has the numbers of
/// those that lead to a switch in the machine: all that its ports send and receive passes there. One
/// that only works for another with a device, as in virtual machines, is counted there.
Counts interfaceCounts(const QByteArray& path, const QList<QByteArray>& conduits)
{
    if (!conduits.isEmpty()) {
        const QByteArray through = contentOf(path + "/iflink");
        const bool isItself = through == contentOf(path + "/ifindex");
        if (!isItself && conduits.contains(through))
            return Counts::Never;
    }
    const bool isPhysical = exists(path + "/device") && !exists(path + "/master/device");
    return isPhysical ? Counts::Always : Counts::WhereNothingElseDoes;
}

} // namespace

LoadSampler::LoadSampler(QByteArray procRoot, QByteArray sysRoot)
    : m_procRoot(std::move(procRoot)), m_sysRoot(std::move(sysRoot))
{
}

SystemMetrics LoadSampler::sample(std::chrono::nanoseconds now)
{
    SystemMetrics out;
    sampleMemory(out);
    if (m_before && now - m_before->takenAt < shortestInterval)
        return out;

    const LoadCounters before = m_before.value_or(LoadCounters());
    m_before = {now, readCpu(), readDisks(), readInterfaces()};
    const double seconds = std::chrono::duration<double>(now - before.takenAt).count();
    if (before.cpu && m_before->cpu)
        out.cpuPercent = busyPercent(*before.cpu, *m_before->cpu);

    const DeviceLoad disks = loadBetween(before.disks, m_before->disks, kibPerSector, seconds);
    out.diskPercent = disks.busiestPercent;
    out.diskReadKbs = disks.inKibPerSecond;
    out.diskWriteKbs = disks.outKibPerSecond;

    const DeviceLoad network =
        loadBetween(before.interfaces, m_before->interfaces, kibPerByte, seconds);
    out.netRecvKbs = network.inKibPerSecond;
    out.netSendKbs = network.outKibPerSecond;
    return out;
}

void LoadSampler::sampleMemory(SystemMetrics& out) const
{
    const MemoryInfo memory(contentOf(m_procRoot + "/meminfo"));
    const quint64 total = memory.bytes("MemTotal");
    const quint64 used = excess(total, memory.available().value_or(total));
    out.memoryTotalBytes = total;
    out.memoryUsedBytes = used;
    out.memoryPercent = percent(static_cast<double>(used), static_cast<double>(total));

    if (contentOf(m_procRoot + "/sys/vm/overcommit_memory").trimmed() == "2") {
        out.commitChargeBytes = memory.bytes("Committed_AS");
        out.commitLimitBytes = memory.bytes("CommitLimit");
    } else {
        const quint64 swap = memory.bytes("SwapTotal");
        out.commitChargeBytes = used + excess(swap, memory.find("SwapFree").value_or(swap));
        out.commitLimitBytes = total + swap;
    }
    out.commitPercent = percent(static_cast<double>(out.commitChargeBytes),
                                static_cast<double>(out.commitLimitBytes));
}

std::optional<LoadCounters::CpuTicks> LoadSampler::readCpu() const
{
    // The sum of all processors stands first; the rest of the file grows with the machine.
    const QByteArray content = contentOf(m_procRoot + "/stat", 1024);
    QByteArrayView rest = content;
    auto line = takeLine(rest);
    LoadCounters::CpuTicks ticks{};
    const bool whole = line && takeWord(*line) == "cpu" && parseNumbers(*line, ticks);
    return whole ? std::optional(ticks) : std::nullopt;
}

Devices LoadSampler::readDisks() const
{
    FoundDevices disks;
    std::error_code error;
    std::filesystem::directory_iterator entry((m_sysRoot + "/block").toStdString(), error);
    for (; !error && entry != std::filesystem::directory_iterator() && disks.size() < mostDevices;
         entry.increment(error)) {
        const QByteArray path = QByteArray::fromStdString(entry->path().native());
        const Counts counts = diskCounts(path, path.sliced(path.lastIndexOf('/') + 1));
        std::array<quint64, 10> fields{};
        if (counts == Counts::Never || !parseNumbers(contentOf(path + "/stat"), fields))
            continue;
        // Another disk may get the name of one that is gone, but not its number.
        disks.insert(counts, path + ' ' + contentOf(path + "/diskseq").trimmed(),
                     {.in = fields[2], .out = fields[6], .busyMs = fields[9]});
    }
    return disks.counted();
}

/// The physical interfaces: what tunnels, bridges and the like carry passes one of them too. Where
/// there is none, as in a container, all but the loopback.
Devices LoadSampler::readInterfaces() const
{
    const QByteArray directory = m_sysRoot + "/class/net/";
    const Devices all = readAllInterfaces();
    QList<QByteArray> conduits;
    for (auto interface = all.cbegin(); interface != all.cend(); ++interface) {
        if (exists(directory + interface.key() + "/dsa"))
            conduits.append(contentOf(directory + interface.key() + "/ifindex"));
    }
    FoundDevices interfaces;
    for (auto interface = all.cbegin(); interface != all.cend(); ++interface) {
        const Counts counts = interfaceCounts(directory + interface.key(), conduits);
        if (counts != Counts::Never)
            interfaces.insert(counts, interface.key(), *interface);
    }
    return interfaces.counted();
}

/// Each interface but the loopback.
Devices LoadSampler::readAllInterfaces() const
{
    Devices interfaces;
    const QByteArray content = contentOf(m_procRoot + "/net/dev");
    QByteArrayView rest = content;
    while (auto line = takeLine(rest)) {
        const QByteArray name = takeUntil(*line, ':').trimmed().toByteArray();
        std::array<quint64, 9> fields{};
        if (name != "lo" && name.size() < IFNAMSIZ && parseNumbers(*line, fields))
            interfaces.insert(name, {.in = fields[0], .out = fields[8]});
    }
    return interfaces;
}

} // namespace korvane::linux_platform
