// The layout of the process table, and the paths of its processes.
#include "platform/windows/processes/process_table.h"

#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/system_information.h"
#include "platform/windows/sys/text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include <winternl.h>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr int allProcesses = 5; // SystemProcessInformation

quint64 notNegative(const LARGE_INTEGER& number)
{
    return static_cast<quint64>(std::max<qint64>(number.QuadPart, 0));
}

/// PIDs are handles to the kernel, of which 32 bits are used.
quint32 processId(HANDLE value)
{
    return static_cast<quint32>(std::bit_cast<quintptr>(value));
}

/// A path of the kernel ("\Device\HarddiskVolume3\x") with the letter of its drive; else empty.
QString withDriveLetter(const QString& devicePath)
{
    constexpr int letters = 26;
    const DWORD present = GetLogicalDrives();
    for (int i = 0; i < letters; ++i) {
        const QString drive = QChar(u'A' + i) + u":"_s;
        std::array<wchar_t, MAX_PATH> target{};
        if ((present >> i & 1U) == 0 ||
            QueryDosDeviceW(wide(drive), target.data(), target.size()) == 0)
            continue;
        const QString device = fromBuffer({target.data(), target.size()}) + u'\\';
        if (devicePath.startsWith(device, Qt::CaseInsensitive))
            return drive + devicePath.sliced(device.size() - 1);
    }
    return {};
}

/// Without opening it. The PID may be another's by now: that one has another name, or the same program.
QString pathWithoutHandle(const ProcessRecord& process)
{
    struct Query // SYSTEM_PROCESS_ID_INFORMATION
    {
        HANDLE pid;
        UNICODE_STRING path;
    };
    constexpr auto pathOfProcess = std::bit_cast<SYSTEM_INFORMATION_CLASS>(88);
    constexpr USHORT mostBytes = 0xfffe;
    std::vector<wchar_t> path(mostBytes / sizeof(wchar_t));
    Query query{std::bit_cast<HANDLE>(quintptr{process.pid}), {0, mostBytes, path.data()}};
    if (NtQuerySystemInformation(pathOfProcess, &query, sizeof query, nullptr) < 0)
        return {};
    const std::size_t length = std::min(query.path.Length, mostBytes) / sizeof(wchar_t);
    const QString devicePath = fromWide({path.data(), length});
    return devicePath.endsWith(u'\\' + process.name, Qt::CaseInsensitive)
               ? withDriveLetter(devicePath)
               : QString();
}

} // namespace

std::optional<std::vector<ProcessRecord>> parseProcessTable(std::span<const std::byte> table)
{
    SYSTEM_PROCESS_INFORMATION raw{};
    std::vector<ProcessRecord> processes;
    do {
        // An offset that is too small would make the records overlap, or go round for ever.
        if (raw.NextEntryOffset > table.size() ||
            (!processes.empty() && raw.NextEntryOffset < sizeof raw))
            return std::nullopt;
        table = table.subspan(raw.NextEntryOffset);
        if (table.size() < sizeof raw)
            return std::nullopt;
        std::memcpy(&raw, table.data(), sizeof raw);
        const auto name = textInside(table, raw.ImageName.Buffer, raw.ImageName.Length);
        if (!name)
            return std::nullopt;
        processes.push_back(
            {.pid = processId(raw.UniqueProcessId),
             .parentPid = processId(raw.InheritedFromUniqueProcessId),
             .name = *name,
             .createdAt = notNegative(raw.CreateTime),
             .cpuTime = notNegative(raw.UserTime) + notNegative(raw.KernelTime),
             .workingSet = static_cast<qint64>(raw.VirtualMemoryCounters.WorkingSetSize)});
    } while (raw.NextEntryOffset != 0);
    return processes;
}

std::optional<std::vector<ProcessRecord>> processTable()
{
    auto processes = parseProcessTable(querySystem(allProcesses));
    if (processes)
        std::erase_if(*processes, [](const ProcessRecord& process) { return process.pid == 0; });
    return processes;
}

QString executablePath(const ProcessRecord& process)
{
    const UniqueHandle handle = openProcess(process.pid);
    if (handle == nullptr)
        return pathWithoutHandle(process);
    return creationTime(handle.get()) == process.createdAt ? imagePath(handle.get()) : QString();
}

} // namespace korvane::windows_platform
