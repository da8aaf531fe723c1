// What is mounted where, in every mount namespace that a process is in.
#pragma once

#include "platform/linux/proc_fs.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>

#include <optional>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace korvane::linux_platform {

/// A name in which the kernel wrote blanks and the like as a backslash and three octal digits.
QByteArray unescaped(QByteArrayView text);

/// Whether `path` is `directory` or lies below it.
bool isAtOrBelow(const QByteArray& path, const QByteArray& directory);

/// A line of /proc/PID/mountinfo.
struct Mount
{
    quint64 id = 0;
    quint64 parent = 0;
    dev_t device = 0;   ///< Of the file system; stat may tell another one of its files.
    QByteArray root;    ///< What of the file system is mounted: "/" but for a bind mount.
    QByteArray place;   ///< Where, as the process sees it.
    QByteArray type;    ///< Of the file system.
    QByteArray source;  ///< What the one who mounted it named.
    QByteArray options; ///< Those of the file system.
};

/// Parses "ID PARENT DEVICE ROOT PLACE OPTIONS... - TYPE SOURCE OPTIONS"; none where that is damaged.
std::optional<Mount> parseMount(QByteArrayView line);

/// One process's view of what is mounted.
class MountTable
{
public:
    void add(Mount mount) { m_mounts.push_back(std::move(mount)); }

    const std::vector<Mount>& mounts() const { return m_mounts; }

    /// The mount of this number; none where the table does not show it.
    const Mount* find(quint64 id) const;

    /// The mount that shows what is at this path, which leads over no link.
    const Mount* at(const QByteArray& path) const;

private:
    std::vector<Mount> m_mounts;
};

/// The kernel's number of the mount that the directory is on; 0 where the kernel does not tell.
quint64 mountNumberOf(int directory);

/// All tables, each distinct one once. What is mounted is told by file system and path inside it, as
/// each namespace has paths of its own. A namespace that no process is in cannot be seen.
class MountTables
{
public:
    /// Reads this process's table.
    bool addOwn(ProcFs& proc);

    /// Reads the table of process `pid`, if it is a new one. False, and errno, when this program's own
    /// limits kept it from that; a process that has vanished has none.
    bool addOf(ProcFs& proc, quint32 pid);

    /// All at once. None, and errno, when that failed.
    static std::optional<MountTables> read();

    const MountTable& own() const { return m_tables.front(); }

    /// How many distinct tables there are.
    std::size_t size() const { return m_tables.size(); }

    /// The table that was read for process `pid`; this process's where there is none.
    const MountTable& of(quint32 pid) const;

    /// What there is mounted at an entry or in it, and what there is mounted of it elsewhere.
    enum class Involvement { None, MountPoint, Source };

    /// Of the entry at this real path, in a directory on the mount with this number. What is mounted
    /// of a directory above it does not count.
    Involvement involvementOf(const QByteArray& canonicalPath, quint64 mountNumber) const;

private:
    /// A file system, and a path inside it.
    using Location = std::pair<dev_t, QByteArray>;

    void add(const QByteArray& content);
    std::optional<Location> locate(const QByteArray& canonicalPath, quint64 mountNumber) const;
    static bool hasAtOrBelow(const std::vector<Location>& locations, const Location& entry);

    std::vector<MountTable> m_tables{MountTable()}; ///< The first is this process's.
    std::vector<Location> m_places;                 ///< Of all mount points; sorted.
    std::vector<Location> m_sources;                ///< Of all bind mounts; sorted.
    QHash<QByteArray, std::size_t> m_byNamespace; ///< Tables by namespace and root, where readable.
    QHash<QByteArray, std::size_t> m_byContent;
    QHash<quint32, std::size_t> m_byProcess;
};

} // namespace korvane::linux_platform
