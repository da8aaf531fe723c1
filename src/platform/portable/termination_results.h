// What an order to end a process came to, in the words for the user.
#pragma once

#include "base/op_result.h"
#include "base/shown_processes.h"

namespace korvane::platform {

/// Why process `pid` may not be ended at all, before the system is asked: `shown` does not have it, or
/// it is `initPid`, without which there is no system. None where it may.
std::optional<OpResult> refusalToEnd(quint32 pid, const ShownProcesses& shown, quint32 initPid);

OpResult endedProcess(quint32 pid);
OpResult exitedBefore(quint32 pid);   ///< There was nothing left to end, which is no failure.
OpResult anotherProcess(quint32 pid); ///< The PID belongs to one that was not shown.
OpResult notPermitted(quint32 pid);   ///< It is another user's.
OpResult outOfReach(quint32 pid);     ///< It is another user's, has more rights, or is protected.
OpResult ownProcess(quint32 pid);
OpResult criticalProcess(quint32 pid); ///< The system stops when it ends.
OpResult stillRunning(quint32 pid);    ///< Ended, but not gone within 3 s.
OpResult kernelThread(quint32 pid);    ///< Nothing that can be ended.
OpResult notEnded(quint32 pid, const QString& why);

} // namespace korvane::platform
