// Walking a directory tree: the one way in which the program looks through disks.
#pragma once

#include <QString>

#include <functional>

namespace korvane::platform {

/// What a walk meets; valid only while the visitor runs. Reading a path costs more than meeting a
/// file does, so nothing is built before it is asked for.
class WalkedEntry
{
public:
    /// The last part of the path. Bytes that are not UTF-8 show as U+FFFD.
    virtual QString name() const = 0;

    /// The walk's root, unchanged, and the way down from there.
    virtual QString path() const = 0;

    /// Whether path() leads back to this entry; false where it only shows a name that is not UTF-8, and
    /// on Windows where the system would take another from it: names that end in a dot, devices' names.
    virtual bool hasExactPath() const = 0;

    /// Whether it is a directory or a link to one.
    bool isDirectory() const { return m_isDirectory; }

    /// Of a file, in bytes; of a link, what it leads to. 0 where that is not there or may not be
    /// asked for, and for a directory.
    qint64 size() const { return m_size; }

protected:
    WalkedEntry() = default;
    ~WalkedEntry() = default;
    WalkedEntry(const WalkedEntry&) = default;
    WalkedEntry& operator=(const WalkedEntry&) = default;
    WalkedEntry(WalkedEntry&&) = default;
    WalkedEntry& operator=(WalkedEntry&&) = default;

    bool m_isDirectory = false;
    qint64 m_size = 0;
};

/// Returns false to end the walk. Each entry that a walk meets is a step to the Watchdog.
using EntryVisitor = std::function<bool(const WalkedEntry&)>;

/// Shows `visit` every file below the directory `root`, in no defined order: hidden ones, special
/// ones and links to files, but not links to directories, which are not followed either. `root`
/// itself may be one; empty means the current directory. What cannot be read or vanishes meanwhile
/// is left out. Runs on any thread.
/// Linux: getdents64 and fstatat below directory handles, to any depth. Below the root, file systems
/// of the kernel's own making are left out, unless the root lies in one. Each directory is a step to
/// the Watchdog once more when it is opened, or cannot be: many that are empty take their time too.
/// Windows: FindFirstFileExW, each directory read to its end before the next is opened, which is a step
/// as on Linux. Junctions and symbolic links count as directories or files by what they were made for;
/// what leads off this machine's own drives is not followed, and is no root. Files in the cloud are
/// listed, not fetched.
/// Without a back end: QDirIterator, which leaves out names that are not UTF-8, and tells of no
/// directory that it enters.
void walkFiles(const QString& root, const EntryVisitor& visit);

/// As walkFiles(), but shows `visitEntry` every direct entry of `root`, directories and links to
/// them too, and `visitFile` the files below those directories, links to them followed: a
/// directory's files come right after it.
void walkEntries(const QString& root, const EntryVisitor& visitEntry,
                 const EntryVisitor& visitFile);

} // namespace korvane::platform
