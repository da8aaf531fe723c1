// Finds who holds files, by all that the system offers.
#pragma once

#include "platform/file_holders.h"

#include <QMap>

namespace korvane::windows_platform {

struct Holders
{
    QMap<quint32, ProcessInfo> processes; ///< By PID.
    QList<platform::HeldFile> held;       ///< At least one of each process.

    /// How many processes and handles could not be looked into, of those that may hold the files: there are
    /// none where the kernel itself named the users of a file.
    std::size_t unseen = 0;

    QString error; ///< Why nothing could be asked; empty where it could.
};

/// The holders of `paths`, and for folders of all that lies in them. This process's own handles are among
/// them, but for those that asking takes. A path that is gone has no holders. Main thread only.
Holders findHolders(const QList<QString>& paths);

} // namespace korvane::windows_platform
