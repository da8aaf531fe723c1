// Single processes: opening one, and what the system tells of it.
#pragma once

#include "platform/windows/sys/handle.h"

#include <QString>

#include <optional>

namespace korvane::windows_platform {

/// The process `pid`; null where it is not there or may not be opened so (GetLastError() says which).
/// `access` has to include PROCESS_QUERY_LIMITED_INFORMATION.
UniqueHandle openProcess(quint32 pid, DWORD access = PROCESS_QUERY_LIMITED_INFORMATION);

/// When it was started, in 100 ns since 1601: what tells it from a later one of its PID. None where the
/// system does not say.
std::optional<quint64> creationTime(HANDLE process);

/// The full path of its executable, of QueryFullProcessImageNameW; empty where the system does not say.
QString imagePath(HANDLE process);

/// Whether the system stops when it ends (IsProcessCritical); false where that cannot be told.
bool isCritical(HANDLE process);

} // namespace korvane::windows_platform
