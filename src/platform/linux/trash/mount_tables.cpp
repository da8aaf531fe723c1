// Reads the tables of mounts, and joins them by file system.
#include "platform/linux/trash/mount_tables.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

/// More than the kernel lets a namespace have: 100,000 mounts.
constexpr qsizetype tableLimit = qsizetype{64} * 1024 * 1024;

/// Of all tables together: anybody may have many namespaces, with many mounts in each.
constexpr qsizetype sumLimit = 4 * tableLimit;

/// "ID PARENT DEVICE ROOT PLACE OPTIONS... - TYPE SOURCE OPTIONS"; none where that is damaged.
std::optional<Mount> parseMount(QByteArrayView line)
{
    Mount mount;
    unsigned int majorNumber = 0;
    unsigned int minorNumber = 0;
    const bool hasNumbers =
        parseNumber(takeWord(line), mount.id) && parseNumber(takeWord(line), mount.parent);
    QByteArrayView device = takeWord(line);
    if (!hasNumbers || !parseNumber(takeUntil(device, ':'), majorNumber) ||
        !parseNumber(device, minorNumber))
        return std::nullopt;
    mount.device = makedev(majorNumber, minorNumber);
    mount.root = unescaped(takeWord(line));
    mount.place = unescaped(takeWord(line));
    while (!line.isEmpty() && takeWord(line) != QByteArrayView("-")) {
    }
    mount.type = takeWord(line).toByteArray();
    mount.source = unescaped(takeWord(line));
    mount.options = takeWord(line).toByteArray();
    return mount.place.startsWith('/') ? std::optional(mount) : std::nullopt;
}

/// The number of the mount that a handle is of; none where the kernel does not tell.
std::optional<quint64> mountIdOf(int handle)
{
    struct statx info = {};
    if (::statx(handle, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &info) != 0 ||
        (info.stx_mask & STATX_MNT_ID) == 0)
        return std::nullopt;
    return info.stx_mnt_id;
}

} // namespace

bool isAtOrBelow(const QByteArray& path, const QByteArray& directory)
{
    return path.startsWith(directory) && (path.size() == directory.size() ||
                                          directory.endsWith('/') || path[directory.size()] == '/');
}

bool anyAtOrBelow(const QList<QByteArray>& paths, const QByteArray& directory)
{
    const QByteArray inside = directory.endsWith('/') ? directory : directory + '/';
    const auto first = std::lower_bound(paths.cbegin(), paths.cend(), inside);
    return std::binary_search(paths.cbegin(), paths.cend(), directory) ||
           (first != paths.cend() && first->startsWith(inside));
}

QByteArray unescaped(QByteArrayView text)
{
    QByteArray plain;
    for (qsizetype at = 0; at < text.size(); ++at) {
        unsigned char byte = 0;
        const bool isEscape = text[at] == '\\' && at + 3 < text.size() &&
                              parseNumber(text.sliced(at + 1, 3), byte, 8);
        plain.append(isEscape ? static_cast<char>(byte) : text[at]);
        at += isEscape ? 3 : 0;
    }
    return plain;
}

bool Mount::isRemote() const
{
    return type.startsWith("nfs") || type == "9p";
}

bool Mount::isLocal() const
{
    // Those on no block device, but for the ones that answer from memory or from several devices.
    static constexpr std::array<QByteArrayView, 8> types{"tmpfs", "ramfs",    "rootfs", "devtmpfs",
                                                         "btrfs", "bcachefs", "zfs",    "overlay"};
    return !type.startsWith("fuse") &&
           (major(device) != 0 || std::find(types.begin(), types.end(), type) != types.end());
}

MountTable::MountTable(QByteArrayView text)
{
    while (!text.isEmpty()) {
        const auto mount = parseMount(takeUntil(text, '\n'));
        if (!mount)
            continue;
        m_byId[mount->id] = m_mounts.size();
        m_hasRemote = m_hasRemote || mount->isRemote();
        m_mounts.push_back(*mount);
    }
}

const Mount* MountTable::byId(quint64 id) const
{
    const auto found = m_byId.find(id);
    return found != m_byId.end() ? &m_mounts[found->second] : nullptr;
}

std::vector<const Mount*> MountTable::under(const QByteArray& path) const
{
    std::vector<const Mount*> nearest;
    for (const Mount& mount : m_mounts) {
        const qsizetype known = nearest.empty() ? 0 : nearest.front()->place.size();
        if (mount.place.size() < known || !isAtOrBelow(path, mount.place))
            continue;
        if (mount.place.size() > known)
            nearest.clear();
        nearest.push_back(&mount);
    }
    return nearest;
}

bool MountTable::isLocal(const QByteArray& path) const
{
    const std::vector<const Mount*> mounts = under(path);
    return !mounts.empty() && std::all_of(mounts.cbegin(), mounts.cend(),
                                          [](const Mount* mount) { return mount->isLocal(); });
}

bool MountTable::isRemote(const QByteArray& path) const
{
    const std::vector<const Mount*> mounts = under(path);
    return std::any_of(mounts.cbegin(), mounts.cend(),
                       [](const Mount* mount) { return mount->isRemote(); });
}

OrErrno<MountTables> MountTables::read(const char* proc)
{
    ProcFs processes(proc);
    if (!processes.isOpen())
        return errno;
    MountTableReader reader(proc);
    const bool sawAll = processes.forEachPid([&reader](quint32 pid) {
        reader.read(pid);
        return true;
    });
    if (!sawAll)
        return errno;
    return reader.result();
}

MountTables::Use MountTables::useOf(int directory, const QByteArray& path) const
{
    const std::optional<quint64> id = mountIdOf(directory);
    const Mount* mount = nullptr;
    if (id) {
        mount = m_own.byId(*id);
    } else {
        const std::vector<const Mount*> mounts =
            m_own.under(path.first(std::max(path.lastIndexOf('/'), qsizetype{1})));
        mount = mounts.empty() ? nullptr : mounts.back();
    }
    const std::optional<Place> place = placeOf(mount, path);
    if (!place)
        return Use::Unknown;
    if (anyAtOrBelow(m_points, *place))
        return Use::MountPoint;
    return anyAtOrBelow(m_sources, *place) ? Use::Source : Use::None;
}

/// The place that is seen at `path` on the mount; none on one that the table does not show, as the
/// process's root lies in the middle of it.
std::optional<MountTables::Place> MountTables::placeOf(const Mount* mount, const QByteArray& path)
{
    if (mount == nullptr || !isAtOrBelow(path, mount->place))
        return std::nullopt;
    QByteArray below = path.sliced(mount->place == "/" ? 0 : mount->place.size());
    if (mount->root != "/")
        below = below == "/" ? mount->root : mount->root + below;
    return QByteArray::number(quint64{mount->device}, 16) + ':' + (below.isEmpty() ? "/" : below);
}

void MountTables::add(const MountTable& table)
{
    const auto append = [](const std::optional<Place>& place, QList<Place>& places) {
        if (place)
            places.append(*place);
    };
    for (const Mount& mount : table.mounts()) {
        if (mount.place != "/")
            append(placeOf(table.byId(mount.parent), mount.place), m_points);
        const bool isPart = mount.root.startsWith('/') && mount.root != "/";
        if (isPart && !mount.root.endsWith("//deleted"))
            append(placeOf(&mount, mount.place), m_sources);
    }
}

MountTableReader::MountTableReader(const char* proc)
    : m_proc(QByteArray(proc) + '/'), m_own(table("self/", IfUnknown::Read))
{
    if (m_own == nullptr)
        m_own = &m_tables.try_emplace(QByteArray()).first->second;
}

const MountTable* MountTableReader::read(quint32 pid)
{
    const QByteArray process = QByteArray::number(pid) + '/';
    const MountTable* leaders = table(process, IfUnknown::Read);
    const QByteArray tasks = process + "task/";
    const DirectoryHandle directory = openDirectory(AT_FDCWD, (m_proc + tasks).constData());
    if (directory == nullptr) {
        noteFailure(errno);
        return leaders;
    }
    for (errno = 0; const dirent* found = ::readdir(directory.get()); errno = 0) {
        quint32 tid = 0;
        if (!parseNumber(QByteArrayView(found->d_name), tid) || tid == pid)
            continue;
        // Where a program does not let its namespaces be compared, one table has to do.
        const MountTable* threads = table(tasks + found->d_name + '/',
                                          leaders == nullptr ? IfUnknown::Read : IfUnknown::Skip);
        leaders = leaders == nullptr ? threads : leaders;
    }
    noteFailure(errno);
    return leaders;
}

void MountTableReader::noteFailure(int error)
{
    if (m_error == 0 && isOwnFailure(error))
        m_error = error;
}

const MountTable* MountTableReader::table(const QByteArray& process, IfUnknown ifUnknown)
{
    QByteArray key = linkIn(process, "ns/mnt");
    if (key.isEmpty() && ifUnknown == IfUnknown::Skip)
        return nullptr;
    key = key.isEmpty() ? key : key + linkIn(process, "root");
    if (const auto known = m_namespaces.find(key); known != m_namespaces.end())
        return known->second;
    if (m_bytes > sumLimit)
        return nullptr;
    const auto text = readSystemFile((m_proc + process + "mountinfo").constData(), tableLimit);
    if (!text || text->size() == tableLimit) {
        noteFailure(text ? ENOMEM : errno);
        return nullptr;
    }
    const auto [read, isNew] = m_tables.try_emplace(*text);
    if (isNew) {
        read->second = MountTable(*text);
        m_bytes += text->size();
        noteFailure(m_bytes > sumLimit ? ENOMEM : 0);
    }
    if (!key.isEmpty())
        m_namespaces.emplace(key, &read->second);
    return &read->second;
}

/// What a link of a process says; empty where this program may not look.
QByteArray MountTableReader::linkIn(const QByteArray& process, const char* name) const
{
    std::array<char, PATH_MAX> target{};
    const ssize_t size =
        ::readlink((m_proc + process + name).constData(), target.data(), target.size());
    return {target.data(), std::max(size, ssize_t{0})};
}

OrErrno<MountTables> MountTableReader::result() const
{
    if (m_error != 0)
        return m_error;
    MountTables found;
    found.m_own = *m_own;
    for (const auto& each : m_tables)
        found.add(each.second);
    std::sort(found.m_points.begin(), found.m_points.end());
    std::sort(found.m_sources.begin(), found.m_sources.end());
    return found;
}

} // namespace korvane::linux_platform
