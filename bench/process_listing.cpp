// Times the listing of processes beside Toolhelp on Windows, in turns: both give PID, parent, name,
// memory in use, times and the path of the executable. Prints the medians in milliseconds, and how many
// processes there were.
#include "core/processes.h"

#include <QElapsedTimer>

#include <algorithm>
#include <iostream>
#include <memory>

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

namespace {

struct Closer
{
    void operator()(void* handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, Closer>;

korvane::ProcessSnapshot toolhelpRecord(const PROCESSENTRY32W& entry)
{
    korvane::ProcessSnapshot process;
    process.pid = entry.th32ProcessID;
    process.parentPid = entry.th32ParentProcessID;
    process.name = QString::fromWCharArray(entry.szExeFile);
    const Handle handle(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process.pid));
    if (handle == nullptr)
        return process;
    FILETIME times[4];
    GetProcessTimes(handle.get(), &times[0], &times[1], &times[2], &times[3]);
    process.cpuPercent = times[3].dwLowDateTime;
    PROCESS_MEMORY_COUNTERS memory{};
    if (GetProcessMemoryInfo(handle.get(), &memory, sizeof memory) != FALSE)
        process.memoryBytes = static_cast<qint64>(memory.WorkingSetSize);
    wchar_t path[MAX_PATH];
    DWORD length = MAX_PATH;
    if (QueryFullProcessImageNameW(handle.get(), 0, path, &length) != FALSE)
        process.exePath = QString::fromWCharArray(path, static_cast<qsizetype>(length));
    return process;
}

QList<korvane::ProcessSnapshot> listByToolhelp()
{
    QList<korvane::ProcessSnapshot> processes;
    const Handle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more != FALSE;
         more = Process32NextW(snapshot.get(), &entry))
        processes.append(toolhelpRecord(entry));
    return processes;
}

double milliseconds(const auto& list)
{
    QElapsedTimer timer;
    timer.start();
    const bool isEmpty = list().isEmpty();
    return isEmpty ? -1 : static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

} // namespace

int main()
{
    constexpr int rounds = 100;
    const auto& service = korvane::Singleton<korvane::ProcessService>::instance();
    const auto count = service.listAllProcesses().size();
    std::vector<double> own;
    std::vector<double> toolhelp;
    for (int round = 0; round < rounds; ++round) {
        own.push_back(milliseconds([&service] { return service.listAllProcesses(); }));
        toolhelp.push_back(milliseconds(listByToolhelp));
    }
    std::cout << "own " << median(own) << " ms, Toolhelp " << median(toolhelp) << " ms, " << count
              << " processes" << std::endl;
    return std::ranges::min(own) > 0 && std::ranges::min(toolhelp) > 0 ? 0 : 1;
}
