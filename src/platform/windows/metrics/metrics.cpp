// The machine's load and memory, as the system counts them.
#include "platform/metrics.h"

#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <algorithm>
#include <memory>

#include <winsock2.h>
#include <ws2ipdef.h>

#include <iphlpapi.h>
#include <netioapi.h>
#include <psapi.h>
#include <winioctl.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace windows_platform;
using Devices = LoadCounters::Devices;

quint64 ticks(const FILETIME& time)
{
    return (quint64{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

quint64 notNegative(const LARGE_INTEGER& number)
{
    return number.QuadPart > 0 ? static_cast<quint64>(number.QuadPart) : 0;
}

std::optional<LoadCounters::CpuTimes> readCpu()
{
    FILETIME idle{};
    FILETIME kernel{}; // The idle time is in it.
    FILETIME user{};
    if (GetSystemTimes(&idle, &kernel, &user) == FALSE)
        return std::nullopt;
    return LoadCounters::CpuTimes{ticks(user), 0, excess(ticks(kernel), ticks(idle)), ticks(idle)};
}

/// Whether a disk is a file on another, where its load counts.
bool isFile(HANDLE drive)
{
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    STORAGE_DEVICE_DESCRIPTOR descriptor{}; // What else there is to say is cut off.
    DWORD size = 0;
    return DeviceIoControl(drive, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, &descriptor,
                           sizeof descriptor, &size, nullptr) != FALSE &&
           descriptor.BusType == BusTypeFileBackedVirtual;
}

/// Drives are numbered from 0, with gaps where some were taken out. Their counters need no rights.
Devices readDisks()
{
    constexpr int mostDrives = 64;
    constexpr quint64 ticksPerMs = 10'000;
    Devices disks;
    for (int number = 0; number < mostDrives; ++number) {
        const QString path = uR"(\\.\PhysicalDrive%1)"_s.arg(number);
        const UniqueHandle drive = owned(CreateFileW(
            wide(path), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
        DISK_PERFORMANCE counted{};
        DWORD size = 0;
        if (drive == nullptr || isFile(drive.get()) ||
            DeviceIoControl(drive.get(), IOCTL_DISK_PERFORMANCE, nullptr, 0, &counted,
                            sizeof counted, &size, nullptr) == FALSE ||
            size < sizeof counted)
            continue;
        const quint64 busy = excess(notNegative(counted.QueryTime), notNegative(counted.IdleTime));
        disks.insert(path.toLatin1(), {.in = notNegative(counted.BytesRead),
                                       .out = notNegative(counted.BytesWritten),
                                       .busyMs = busy / ticksPerMs});
    }
    return disks;
}

/// The hardware's interfaces: what bridges, tunnels and the filters between carry passes one of them
/// too. Where there is none, as in a container, all others that are no such thing.
Devices readInterfaces()
{
    constexpr ULONG mostInterfaces = 4096;
    MIB_IF_TABLE2* raw = nullptr;
    if (GetIfTable2(&raw) != NO_ERROR)
        return {};
    const std::unique_ptr<MIB_IF_TABLE2, CloseBy<FreeMibTable>> table(raw);
    Devices hardware;
    Devices others;
    const MIB_IF_ROW2* const rows = table->Table;
    for (ULONG i = 0; i < std::min(table->NumEntries, mostInterfaces); ++i) {
        const MIB_IF_ROW2& row = rows[i];
        const auto& flags = row.InterfaceAndOperStatusFlags;
        if (flags.FilterInterface != 0 || row.Type == IF_TYPE_SOFTWARE_LOOPBACK ||
            row.Type == IF_TYPE_TUNNEL)
            continue;
        (flags.HardwareInterface != 0 ? hardware : others)
            .insert(QByteArray::number(row.InterfaceLuid.Value, 16),
                    {.in = row.InOctets, .out = row.OutOctets});
    }
    return hardware.isEmpty() ? others : hardware;
}

} // namespace

void platform::sampleSystemMetrics(LoadCounters& before, SystemMetrics& out)
{
    out = {};
    sampleMemoryOnly(out);
    const auto read = [](std::chrono::nanoseconds at) {
        return LoadCounters{at, readCpu(), readDisks(), readInterfaces()};
    };
    sampleLoad(before, std::chrono::steady_clock::now().time_since_epoch(), read, out);
}

void platform::sampleMemoryOnly(SystemMetrics& out)
{
    PERFORMANCE_INFORMATION pages{};
    pages.cb = sizeof pages;
    if (GetPerformanceInfo(&pages, sizeof pages) == FALSE)
        pages = {};
    const auto percent = [](quint64 part, quint64 whole) {
        return percentOf(static_cast<double>(part), static_cast<double>(whole));
    };
    out.memoryTotalBytes = pages.PhysicalTotal * pages.PageSize;
    out.memoryUsedBytes = excess(pages.PhysicalTotal, pages.PhysicalAvailable) * pages.PageSize;
    out.memoryPercent = percent(out.memoryUsedBytes, out.memoryTotalBytes);
    out.commitChargeBytes = pages.CommitTotal * pages.PageSize;
    out.commitLimitBytes = pages.CommitLimit * pages.PageSize;
    out.commitPercent = percent(out.commitChargeBytes, out.commitLimitBytes);
}

} // namespace korvane
