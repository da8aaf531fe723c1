// The processes that hold files open, and making them let go.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace korvane::platform {

/// A handle that a process has on a file. The start time tells the process from a later one of its PID.
struct HeldFile
{
    quint32 pid = 0;
    quint64 startTime = 0;
    quint64 handle = 0; ///< 0 where it holds the file by something that cannot be closed from here.
    QByteArray file{};  ///< What tells the file from others, in the platform's own form.
    QString path{};     ///< For which of the paths that the probe was given it was found.
};

/// Finds the processes that hold any of `paths`, or for a folder what lies in it; `held` receives their
/// handles. Not ok where nothing is found but not everything could be looked into, nor for the system's
/// own directory and what holds it. Main thread only, as all of these. Linux: not supported. Windows:
/// NtQueryInformationFile and the Restart Manager for files, NtQuerySystemInformation's table of handles
/// for folders too.
LockerProbe findFileHolders(const QList<QString>& paths, QList<HeldFile>& held);

/// Closes handles in the processes that a probe found, and probes again: not ok while anybody still
/// holds one of the paths, whom the message names. Windows: DuplicateHandle with
/// DUPLICATE_CLOSE_SOURCE, of handles that are still open on that file; never in the system's own and
/// critical processes, nor in this one. Linux: not supported.
OpResult closeHeldFiles(const QList<HeldFile>& held);

/// Has the paths, files and empty folders, deleted at the next restart. Linux: not supported.
/// Windows: MoveFileExW, for administrators only.
OpResult scheduleDeleteOnReboot(const QList<QString>& paths);

} // namespace korvane::platform
