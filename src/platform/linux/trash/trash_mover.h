// The ways into the recycle bin: which trash takes an entry, and whether by a rename or as a copy.
#pragma once

#include "platform/linux/trash/movable_entry.h"
#include "platform/linux/trash/trash_directory.h"

#include <QString>

#include <map>
#include <memory>
#include <vector>

namespace korvane::linux_platform {

/// A directory that holds entries to be moved.
struct SourceDirectory
{
    /// Opens the directory at `path`, links followed. EPERM where root would go a way that others
    /// can change (see openDirectoryAt()).
    static OrErrno<std::shared_ptr<const SourceDirectory>> open(const QByteArray& path);

    /// The path of its entry `name`.
    QByteArray pathOf(const QByteArray& name) const
    {
        return (path == "/" ? "" : path) + '/' + name;
    }

    UniqueFd handle;
    QByteArray path;       ///< The real one.
    quint64 mount = 0;     ///< The kernel's number of the mount it lies on.
    bool isMemory = false; ///< What it holds is lost when the machine stops.
};

/// An entry that may be moved, and what became of it.
struct TrashCandidate
{
    enum class Outcome { Pending, Moved, MovedInPart, Vanished, Kept };

    std::shared_ptr<const SourceDirectory> source;
    QByteArray name;
    MoveVerdict verdict;
    Outcome outcome = Outcome::Pending;
    QString why;         ///< Why it is kept.
    QByteArray reserved; ///< Its name in the trash that it is on its way to.
    QByteArray copy;     ///< The name of its copy in the staging place.

    QByteArray path() const { return source->pathOf(name); }
};

/// Moves entries, but for those that have to do with mounts by then, whenever they were checked. At
/// every moment each of them is where it was, or whole in a trash with its info
/// file, or both; after a power failure too.
class TrashMover
{
public:
    TrashMover();

    /// Tries to move all of them, which then have an outcome. Each file system is written to disk once
    /// or twice for all of them together.
    void move(std::vector<TrashCandidate>& candidates);

private:
    using Candidates = std::vector<TrashCandidate*>;

    TrashDirectory* volumeTrashOf(const SourceDirectory& source);
    static void rename(TrashDirectory& trash, const Candidates& candidates);
    void copy(Candidates candidates);
    int stage(TrashCandidate& candidate);
    void discardCopy(TrashCandidate& candidate);
    void removeOriginalOf(TrashCandidate& candidate, const QString& whyNot);

    std::unique_ptr<TrashDirectory> m_home;
    quint64 m_homeMount = 0;
    /// Of other volumes, by mount; null where there can be none.
    std::map<quint64, std::unique_ptr<TrashDirectory>> m_volumeTrashes;
    int m_copies = 0; ///< As many names of copies were given.
};

} // namespace korvane::linux_platform
