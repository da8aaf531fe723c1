// Reading and parsing of the kernel's load counters.
#include "platform/linux/metrics/load_sampler.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <utility>

#include <net/if.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

using Devices = LoadCounters::Devices;

/// Far above what a machine has, so that no text can make us read without end.
constexpr qsizetype mostDevices = 4096;
constexpr qsizetype mostBytes = qsizetype{1} << 20;

/// /sys/block counts in sectors of 512 bytes, whatever the disk's own are.
quint64 bytesOfSectors(quint64 sectors)
{
    constexpr quint64 sectorBytes = 512;
    return std::min(sectors, std::numeric_limits<quint64>::max() / sectorBytes) * sectorBytes;
}

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
/// has no device, but neither has a disk that a program serves (nbd). Nor do drives of discs: often
/// empty, one would keep such a disk from counting. An NVMe disk of several paths is there beside them,
/// but the kernel counts its load only from 6.2 on: so the paths are counted.
Counts diskCounts(const QByteArray& path, QByteArrayView name)
{
    static constexpr std::array noDisks{"loop", "ram", "zram", "dm-", "md", "sr", "fd"};
    if (std::any_of(noDisks.begin(), noDisks.end(),
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
/// those that lead to a switch in the machine: all that its ports send and receive passes there. Of
/// others that are linked, the number may be one in another namespace. One that only works for another
/// with a device, as in virtual machines, is counted there.
Counts interfaceCounts(const QByteArray& path, const QList<QByteArray>& conduits)
{
    if (!conduits.isEmpty() && conduits.contains(contentOf(path + "/iflink")) &&
        contentOf(path + "/uevent").split('\n').contains("DEVTYPE=dsa"))
        return Counts::Never;
    const bool isPhysical = exists(path + "/device") && !exists(path + "/master/device");
    return isPhysical ? Counts::Always : Counts::WhereNothingElseDoes;
}

} // namespace

LoadSampler::LoadSampler(QByteArray procRoot, QByteArray sysRoot)
    : m_procRoot(std::move(procRoot)), m_sysRoot(std::move(sysRoot))
{
}

void LoadSampler::sample(LoadCounters& before, std::chrono::nanoseconds now,
                         SystemMetrics& out) const
{
    out = {};
    sampleMemory(out);
    const auto read = [this](std::chrono::nanoseconds at) {
        return LoadCounters{at, readCpu(), readDisks(), readInterfaces()};
    };
    sampleLoad(before, now, read, out);
}

void LoadSampler::sampleMemory(SystemMetrics& out) const
{
    const MemoryInfo memory(contentOf(m_procRoot + "/meminfo"));
    const quint64 total = memory.bytes("MemTotal");
    const quint64 used = excess(total, memory.available().value_or(total));
    out.memoryTotalBytes = total;
    out.memoryUsedBytes = used;
    out.memoryPercent = percentOf(static_cast<double>(used), static_cast<double>(total));

    if (contentOf(m_procRoot + "/sys/vm/overcommit_memory").trimmed() == "2") {
        out.commitChargeBytes = memory.bytes("Committed_AS");
        out.commitLimitBytes = memory.bytes("CommitLimit");
    } else {
        const quint64 swap = memory.bytes("SwapTotal");
        out.commitChargeBytes = used + excess(swap, memory.find("SwapFree").value_or(swap));
        out.commitLimitBytes = total + swap;
    }
    out.commitPercent = percentOf(static_cast<double>(out.commitChargeBytes),
                                  static_cast<double>(out.commitLimitBytes));
}

std::optional<LoadCounters::CpuTimes> LoadSampler::readCpu() const
{
    // The sum of all processors stands first; the rest of the file grows with the machine.
    const QByteArray content = contentOf(m_procRoot + "/stat", 1024);
    QByteArrayView rest = content;
    auto line = takeLine(rest);
    LoadCounters::CpuTimes ticks{};
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
                     {.in = bytesOfSectors(fields[2]),
                      .out = bytesOfSectors(fields[6]),
                      .busyMs = fields[9]});
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
        const QByteArray number = exists(directory + interface.key() + "/dsa")
                                      ? contentOf(directory + interface.key() + "/ifindex")
                                      : QByteArray();
        if (!number.isEmpty())
            conduits.append(number);
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
