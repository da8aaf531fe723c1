// Whether a file or directory may be moved to the recycle bin without harm to what is running.
#pragma once

#include "platform/linux/trash/files_in_use.h"

#include <QByteArray>
#include <QString>

#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

namespace korvane::linux_platform {

/// Why an entry stays where it is.
enum class KeptBecause {
    Nothing, ///< It may be moved.
    Vanished,
    InUse,       ///< By a running program or the kernel: see FilesInUse and FileHold.
    NotOwn,      ///< Another user's, for root too; protected from changes, or from being opened.
    SpecialFile, ///< A socket, FIFO or device.
    MountPoint,
    SystemPlace, ///< A protected directory, a recycle bin, or what a desktop finds by its name.
    Unreadable,  ///< What it holds cannot be seen.
    OthersPath,  ///< Another user can change what root would find at its path.
    HomeAsTemp,  ///< The temporary directory that it lies in is the home or holds it.
    Unconfirmed, ///< Whether others have something mounted there cannot be known.
};

/// The reason in a word or two, as the user reads it; empty for Nothing.
QString keptBecauseText(KeptBecause reason);

/// Why the entry at the real `path`, in the directory handle `parent`, stays for what is mounted on it,
/// in it or from there, or may be.
KeptBecause keptByMounts(const MountTables& mounts, int parent, const QByteArray& path);

/// What is known of an entry with everything in it; the size is whole only where it may be moved.
struct MoveVerdict
{
    KeptBecause keptBecause = KeptBecause::Nothing;
    qint64 bytes = 0; ///< Allocated ones; a file of two names counts twice.

    /// Whether a lease can tell, once there is a copy, that nobody has the original open: see FileHold.
    bool canBeHeld = true;
};

/// Judges whether entries may be moved: looks through them for what must not be.
class MoveJudge
{
public:
    /// Neither the directories at `protectedPaths`, links followed, nor any that holds one is movable;
    /// paths where there is none do not matter.
    MoveJudge(FilesInUse inUse, const QList<QByteArray>& protectedPaths);

    /// Whether the entry `name` of the directory handle `parent` may be moved. `canonicalPath` is its
    /// real path, without links on the way; itself it may be a link, and is then judged, as are all in
    /// it, by itself. Each file is opened for a moment. What happens to the entry afterwards, nobody can
    /// promise.
    MoveVerdict judge(int parent, const char* name, const QByteArray& canonicalPath) const;

private:
    class Visitor;

    /// Judges the entry alone, not what is in it, and adds it to `sum`; tells what it is.
    KeptBecause judgeAlone(int directory, const char* name, MoveVerdict& sum, mode_t& mode) const;

    FilesInUse m_inUse;
    std::vector<std::pair<dev_t, ino_t>> m_protected;
};

} // namespace korvane::linux_platform
