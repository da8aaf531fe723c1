// Which file a process means by a path, found without waiting for a file system whose server is dead.
#pragma once

#include "platform/linux/mount_tables.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

#include <utility>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

/// Whether files of this type of file system are asked for from a server, or a program, that may not
/// answer.
bool mayHang(const QByteArray& fileSystemType);

/// What lies on the way of a path, and at its end.
struct NamedFile
{
    /// The links on the way, and the file at the end if it is there.
    std::vector<std::pair<dev_t, ino_t>> files;
    /// How far the way is known, and the rest as it was written.
    QByteArray path;
    /// An errno where the way ends before the path does; 0 otherwise.
    int error = 0;
};

/// Follows `path` as process `pid` would, from its root or its working directory, which `table` has
/// the mounts of. It never enters a file system that may hang.
NamedFile followAs(const ProcFs& proc, quint32 pid, const MountTable& table,
                   const QByteArray& path);

} // namespace korvane::linux_platform
