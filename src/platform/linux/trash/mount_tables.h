// What is mounted where, in the mount namespaces of all processes.
#pragma once

#include "platform/linux/trash/or_errno.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

#include <map>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

/// Whether `path` is `directory` or lies below it; both without a slash at the end.
bool isAtOrBelow(const QByteArray& path, const QByteArray& directory);

/// Whether one of the sorted `paths` is `directory` or lies below it.
bool anyAtOrBelow(const QList<QByteArray>& paths, const QByteArray& directory);

/// A name in which the kernel wrote blanks and the like as a backslash and three octal digits.
QByteArray unescaped(QByteArrayView text);

/// A line of /proc/PID/mountinfo.
struct Mount
{
    quint64 id = 0;
    quint64 parent = 0;
    dev_t device = 0;   ///< The file system's own, which on btrfs is not what stat tells.
    QByteArray root;    ///< What of the file system is mounted: a path inside it.
    QByteArray place;   ///< The mount point, as the process sees it.
    QByteArray type;    ///< As in "ext4".
    QByteArray source;  ///< Of bind mounts too, what the file system was made from.
    QByteArray options; ///< Those of the file system.

    /// Whether a server elsewhere answers for it, and is asked even for what is known already.
    bool isRemote() const;

    /// Whether the kernel alone answers for it: nothing there waits for a program or for the network.
    bool isLocal() const;
};

/// A process's mountinfo.
class MountTable
{
public:
    /// Parses the text; damaged lines are left out.
    explicit MountTable(QByteArrayView text = {});

    const std::vector<Mount>& mounts() const { return m_mounts; }

    /// The mount of that number, null where this table has none.
    const Mount* byId(quint64 id) const;

    /// The mounts on one of which the path lies: those on the mount point nearest to it, as one may
    /// cover another. None where the process's root lies below that.
    std::vector<const Mount*> under(const QByteArray& path) const;

    /// Whether the path lies on local mounts only, and on one at all that the table shows.
    bool isLocal(const QByteArray& path) const;

    /// Whether the path lies on a mount that isRemote().
    bool isRemote(const QByteArray& path) const;

    /// Whether any mount is.
    bool hasRemote() const { return m_hasRemote; }

private:
    std::vector<Mount> m_mounts;
    std::unordered_map<quint64, std::size_t> m_byId;
    bool m_hasRemote = false;
};

/// Where something is mounted, and from where, in the namespaces of all processes at one moment. A
/// place is told by its file system and the path inside it: paths mean another one in each namespace.
class MountTables
{
public:
    enum class Use {
        None,
        MountPoint,
        Source,
        Unknown, ///< This process's table does not show the mount that the entry lies on.
    };

    MountTables() = default;

    /// Reads the tables; none when this program's own limits left some out, or /proc is unusable.
    static OrErrno<MountTables> read(const char* proc = "/proc");

    /// Whether something is mounted on the entry at `path` or in it, or mounted from there: a source
    /// that holds the entry is none of its. Unknown after a chroot into the middle of a mount: other
    /// tables tell that place by a path which this process cannot know. The path is a real one,
    /// `directory` a handle of the directory that the entry lies in.
    Use useOf(int directory, const QByteArray& path) const;

private:
    friend class MountTableReader;

    /// As useOf() has them: "FILE SYSTEM:PATH", of which the first is a hexadecimal number.
    using Place = QByteArray;

    void add(const MountTable& table);
    static std::optional<Place> placeOf(const Mount* mount, const QByteArray& path);

    MountTable m_own;
    QList<Place> m_points;  ///< Sorted, as are the
    QList<Place> m_sources; ///< mounted parts of file systems.
};

/// Reads the tables of processes, each distinct one once.
class MountTableReader
{
public:
    /// Reads the one of this process from `proc`, a /proc or a directory of its shape.
    explicit MountTableReader(const char* proc);

    const MountTable& own() const { return *m_own; }

    /// The table of a process, read with those that its threads may have of their own; null where that
    /// cannot be read. It lives as long as this object.
    const MountTable* read(quint32 pid);

    /// All distinct ones.
    const std::map<QByteArray, MountTable>& tables() const { return m_tables; }

    /// What the tables read so far tell; none as MountTables::read().
    OrErrno<MountTables> result() const;

private:
    enum class IfUnknown { Read, Skip };

    const MountTable* table(const QByteArray& process, IfUnknown ifUnknown);
    void noteFailure(int error);
    QByteArray linkIn(const QByteArray& process, const char* name) const;

    QByteArray m_proc;
    std::map<QByteArray, MountTable> m_tables;            ///< By their texts.
    std::map<QByteArray, const MountTable*> m_namespaces; ///< By namespace and root.
    qsizetype m_bytes = 0;                                ///< Of all texts.
    int m_error = 0;         ///< The first failure of this program's own.
    const MountTable* m_own; // last: it is read with all of these
};

} // namespace korvane::linux_platform
