// The arithmetic of load, which no damaged counter may upset.
#include "base/load_counters.h"

#include <algorithm>

namespace korvane {

namespace {

/// No device is as fast: the counter was damaged, or another device's.
constexpr double impossibleKibPerSecond = double{1 << 30};

double kibPerSecond(quint64 bytes, double seconds)
{
    const double rate = static_cast<double>(bytes) / 1024 / seconds;
    return rate < impossibleKibPerSecond ? rate : 0;
}

double busyPercent(const LoadCounters::CpuTimes& before, const LoadCounters::CpuTimes& now)
{
    constexpr std::size_t idle = 3;
    constexpr std::size_t waiting = 4; // For a disk, which is idle too; it may run backwards.
    double busy = 0;
    double all = 0;
    for (std::size_t kind = 0; kind < now.size(); ++kind) {
        const auto time = static_cast<double>(excess(now.at(kind), before.at(kind)));
        all += time;
        if (kind != idle && kind != waiting)
            busy += time;
    }
    return percentOf(busy, all);
}

/// The load of devices of one kind.
struct DeviceLoad
{
    double inKibPerSecond = 0;
    double outKibPerSecond = 0;
    double busiestPercent = 0;
};

DeviceLoad loadBetween(const LoadCounters::Devices& before, const LoadCounters::Devices& now,
                       double seconds)
{
    DeviceLoad load;
    for (auto device = now.cbegin(); device != now.cend(); ++device) {
        const auto old = before.constFind(device.key());
        if (old == before.constEnd() || device->in < old->in || device->out < old->out ||
            device->busyMs < old->busyMs)
            continue;
        load.inKibPerSecond += kibPerSecond(device->in - old->in, seconds);
        load.outKibPerSecond += kibPerSecond(device->out - old->out, seconds);
        const auto busyMs = static_cast<double>(device->busyMs - old->busyMs);
        load.busiestPercent = std::max(load.busiestPercent, percentOf(busyMs, seconds * 1000));
    }
    return load;
}

/// Fills the shares and rates of `out`; 0 where `before` is no reading.
void setLoadBetween(const LoadCounters& before, const LoadCounters& now, SystemMetrics& out)
{
    const double seconds = std::chrono::duration<double>(now.takenAt - before.takenAt).count();
    if (before.cpu && now.cpu)
        out.cpuPercent = busyPercent(*before.cpu, *now.cpu);
    const DeviceLoad disks = loadBetween(before.disks, now.disks, seconds);
    out.diskPercent = disks.busiestPercent;
    out.diskReadKbs = disks.inKibPerSecond;
    out.diskWriteKbs = disks.outKibPerSecond;
    const DeviceLoad network = loadBetween(before.interfaces, now.interfaces, seconds);
    out.netRecvKbs = network.inKibPerSecond;
    out.netSendKbs = network.outKibPerSecond;
}

} // namespace

quint64 excess(quint64 value, quint64 base)
{
    return value > base ? value - base : 0;
}

double percentOf(double part, double whole)
{
    return whole > 0 ? std::clamp(100 * part / whole, 0.0, 100.0) : 0;
}

void sampleLoad(LoadCounters& before, std::chrono::nanoseconds now,
                const std::function<LoadCounters(std::chrono::nanoseconds now)>& read,
                SystemMetrics& out)
{
    const bool isFirst = before.takenAt == std::chrono::nanoseconds::zero();
    if (!isFirst && now - before.takenAt < shortestLoadInterval)
        return;
    const LoadCounters current = read(now);
    if (!isFirst)
        setLoadBetween(before, current, out);
    before = current;
}

} // namespace korvane
