// Processes: who runs, with which arguments, and ending one.
#pragma once

#include "base/op_result.h"
#include "base/process_cpu_table.h"
#include "base/shown_processes.h"
#include "base/system_records.h"

namespace korvane::platform {

/// Every process that this one may see. Records each in `cpuTable`, which gives its processor use, and
/// replaces `shown` by what it lists. A failure is an empty list, with a short text in `error` (may be
/// null), and leaves `shown` as it was. Main thread only. Linux: /proc/PID/stat, statm and exe.
/// Windows: one NtQuerySystemInformation(SystemProcessInformation), without the idle process; memory is
/// the working set, and a parent that is gone is 0. QueryFullProcessImageNameW once a process.
QList<ProcessSnapshot> listProcesses(ProcessCpuTable& cpuTable, ShownProcesses& shown,
                                     QString* error);

/// Process `pid`, its parent, and so on, at most 16; empty where it is not visible, or has ended. A
/// parent that started after its child is none, but has its PID by now: there the list ends. Main
/// thread only. Linux: /proc/PID/stat and exe. Windows: as listProcesses(). Without a back end: empty.
QList<ProcessSnapshot> processAndAncestors(quint32 pid);

/// The full command line of process `pid`; empty when it cannot be read.
/// Linux: /proc/PID/cmdline, arguments joined by one blank.
/// Windows: NtQueryInformationProcess(ProcessCommandLineInformation), as the process was started with it.
QString processCommandLine(unsigned int pid);

/// Ends process `pid`, and waits up to 3 s until it is gone. Not ok unless it is the very process that
/// `shown` has under the PID; ok when that one has exited already. Linux: SIGKILL through a pidfd.
/// Windows: TerminateProcess through a handle; neither this process nor a critical one (IsProcessCritical).
OpResult endProcess(unsigned int pid, const ShownProcesses& shown);

} // namespace korvane::platform
