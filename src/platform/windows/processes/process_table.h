// The system's table of processes, taken apart.
#pragma once

#include <QString>

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace korvane::windows_platform {

/// A process as the table has it.
struct ProcessRecord
{
    quint32 pid = 0;
    quint32 parentPid = 0; ///< Who started it; the PID may belong to another by now.
    QString name;          ///< "" for the idle process alone.
    quint64 createdAt = 0; ///< In 100 ns since 1601, as creationTime() of process_handle.h.
    quint64 cpuTime = 0;   ///< User and kernel, in 100 ns.
    qint64 workingSet = 0; ///< Memory that it has in use now, shared pages included; bytes.
};

/// The records in `table`, filled by NtQuerySystemInformation(SystemProcessInformation) at the place
/// where it lies, as its records point into it. None where it is damaged: an offset or a name outside
/// of it, or records that overlap.
std::optional<std::vector<ProcessRecord>> parseProcessTable(std::span<const std::byte> table);

/// All processes, but for the idle one (PID 0), whose time is what nobody used; none where the system
/// does not tell.
std::optional<std::vector<ProcessRecord>> processTable();

/// The full path of the process's executable; empty where the system does not say. By
/// QueryFullProcessImageNameW; where the process may not be opened, by SystemProcessIdInformation (88),
/// which needs no rights.
QString executablePath(const ProcessRecord& process);

} // namespace korvane::windows_platform
