// The open files of all processes.
#pragma once

#include <QtGlobal>

#include <vector>

#include <windows.h>

namespace korvane::windows_platform {

struct TableHandle
{
    quint32 pid = 0;
    quint64 handle = 0;
    quint32 access = 0; ///< The access that was granted.
};

/// The handles in all processes that are of the type of `file`, a handle of this process that is open on a
/// file: files, folders, pipes and devices. Empty where the system does not say.
/// NtQuerySystemInformation(SystemExtendedHandleInformation).
std::vector<TableHandle> openFileHandles(HANDLE file);

} // namespace korvane::windows_platform
