// Reads the tables of mounts, and tells places in file systems from paths.
#include "platform/linux/mount_tables.h"

#include "platform/linux/text.h"

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

/// More than a machine with tens of thousands of mounts has in a table.
constexpr qsizetype tableLimit = qsizetype{16} * 1024 * 1024;

/// What a link of /proc says; empty where it may not be read.
QByteArray targetOf(int directory, const QByteArray& link)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlinkat(directory, link.constData(), target.data(), target.size());
    return size > 0 ? QByteArray(target.data(), size) : QByteArray();
}

QByteArray joined(const QByteArray& directory, const QByteArray& below)
{
    return directory == "/" && !below.isEmpty() ? below : directory + below;
}

/// The way from `directory` to `path`, which lies there or below; with a slash before it, if any.
QByteArray wayBelow(const QByteArray& directory, const QByteArray& path)
{
    return path.sliced(directory == "/" ? (path == "/" ? 1 : 0) : directory.size());
}

void sortUnique(std::vector<std::pair<dev_t, QByteArray>>& locations)
{
    std::sort(locations.begin(), locations.end());
    locations.erase(std::unique(locations.begin(), locations.end()), locations.end());
}

} // namespace

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

bool isAtOrBelow(const QByteArray& path, const QByteArray& directory)
{
    return path.startsWith(directory) && (path.size() == directory.size() ||
                                          directory.endsWith('/') || path[directory.size()] == '/');
}

std::optional<Mount> parseMount(QByteArrayView line)
{
    Mount mount;
    unsigned int majorNumber = 0;
    unsigned int minorNumber = 0;
    if (!parseNumber(takeWord(line), mount.id) || !parseNumber(takeWord(line), mount.parent))
        return std::nullopt;
    QByteArrayView device = takeWord(line);
    if (!parseNumber(takeUntil(device, ':'), majorNumber) || !parseNumber(device, minorNumber))
        return std::nullopt;
    mount.device = makedev(majorNumber, minorNumber);
    mount.root = unescaped(takeWord(line));
    mount.place = unescaped(takeWord(line));
    if (!mount.place.startsWith('/'))
        return std::nullopt;
    while (!line.isEmpty() && takeWord(line) != QByteArrayView("-")) {
    }
    mount.type = takeWord(line).toByteArray();
    mount.source = unescaped(takeWord(line));
    mount.options = takeWord(line).toByteArray();
    return mount;
}

const Mount* MountTable::find(quint64 id) const
{
    const auto found = std::find_if(m_mounts.cbegin(), m_mounts.cend(),
                                    [id](const Mount& mount) { return mount.id == id; });
    return found == m_mounts.cend() ? nullptr : &*found;
}

const Mount* MountTable::at(const QByteArray& path) const
{
    const Mount* nearest = nullptr;
    for (const Mount& mount : m_mounts) { // of several at one place, the last covers the others
        if (isAtOrBelow(path, mount.place) &&
            (nearest == nullptr || mount.place.size() >= nearest->place.size()))
            nearest = &mount;
    }
    return nearest;
}

quint64 mountNumberOf(int directory)
{
    struct statx info = {};
    constexpr int flags = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
    const bool isTold = ::statx(directory, "", flags, STATX_MNT_ID, &info) == 0 &&
                        (info.stx_mask & STATX_MNT_ID) != 0;
    return isTold ? info.stx_mnt_id : 0;
}

void MountTables::add(const QByteArray& content)
{
    MountTable table;
    QByteArrayView rest = content;
    while (!rest.isEmpty()) {
        if (auto mount = parseMount(takeUntil(rest, '\n')))
            table.add(std::move(*mount));
    }
    for (const Mount& mount : table.mounts()) {
        if (mount.root.startsWith('/') && mount.root != "/")
            m_sources.emplace_back(mount.device, mount.root);
        const Mount* around = table.find(mount.parent);
        if (around != nullptr && around != &mount && isAtOrBelow(mount.place, around->place))
            m_places.emplace_back(around->device,
                                  joined(around->root, wayBelow(around->place, mount.place)));
    }
    sortUnique(m_sources);
    sortUnique(m_places);
    m_tables.push_back(std::move(table));
}

bool MountTables::addOwn(ProcFs& proc)
{
    const QByteArray path = "self/mountinfo";
    QByteArray content;
    const bool isWhole = proc.readLines(
        path.constData(), [&content](QByteArrayView line) { content.append(line).append('\n'); });
    if (!isWhole && isOwnFailure(errno))
        return false;
    add(content);
    std::swap(m_tables.front(), m_tables.back());
    m_tables.pop_back();
    m_byContent.insert(content, 0);
    return true;
}

bool MountTables::addOf(ProcFs& proc, quint32 pid)
{
    // One read of two links instead of a table, which may be long.
    const QByteArray process = QByteArray::number(pid);
    const QByteArray root = targetOf(proc.descriptor(), process + "/root");
    QByteArray key = targetOf(proc.descriptor(), process + "/ns/mnt");
    if (!key.isEmpty() && !root.isEmpty()) {
        key += ' ' + root;
        const auto known = m_byNamespace.constFind(key);
        if (known != m_byNamespace.constEnd()) {
            m_byProcess.insert(pid, *known);
            return true;
        }
    } else {
        key.clear();
    }
    const auto content = proc.readWholeFile(pid, "mountinfo", tableLimit);
    if (!content)
        return !isOwnFailure(errno);
    if (content->size() >= tableLimit) {
        errno = EFBIG;
        return false;
    }
    auto known = m_byContent.constFind(*content);
    if (known == m_byContent.constEnd()) {
        known = m_byContent.insert(*content, m_tables.size());
        add(*content);
    }
    m_byProcess.insert(pid, *known);
    if (!key.isEmpty())
        m_byNamespace.insert(key, *known);
    return true;
}

std::optional<MountTables> MountTables::read()
{
    ProcFs proc;
    MountTables tables;
    if (!proc.isOpen() || !tables.addOwn(proc))
        return std::nullopt;
    int error = 0;
    const bool sawAll = proc.forEachPid([&](quint32 pid) {
        const bool isAdded = tables.addOf(proc, pid);
        error = isAdded ? 0 : errno;
        return isAdded;
    });
    if (error != 0)
        errno = error;
    return sawAll ? std::optional(std::move(tables)) : std::nullopt;
}

const MountTable& MountTables::of(quint32 pid) const
{
    return m_tables[m_byProcess.value(pid, 0)];
}

std::optional<MountTables::Location> MountTables::locate(const QByteArray& canonicalPath,
                                                         quint64 mountNumber) const
{
    const qsizetype slash = std::max(canonicalPath.lastIndexOf('/'), qsizetype{1});
    const Mount* mount = own().find(mountNumber);
    if (mount == nullptr)
        mount = own().at(canonicalPath.first(slash));
    if (mount == nullptr || !isAtOrBelow(canonicalPath, mount->place))
        return std::nullopt;
    return Location(mount->device, joined(mount->root, wayBelow(mount->place, canonicalPath)));
}

bool MountTables::hasAtOrBelow(const std::vector<Location>& locations, const Location& entry)
{
    const QByteArray below = joined(entry.second, "/");
    const auto first =
        std::lower_bound(locations.cbegin(), locations.cend(), Location(entry.first, below));
    return std::binary_search(locations.cbegin(), locations.cend(), entry) ||
           (first != locations.cend() && first->first == entry.first &&
            first->second.startsWith(below));
}

MountTables::Involvement MountTables::involvementOf(const QByteArray& canonicalPath,
                                                    quint64 mountNumber) const
{
    // A dead mount of this namespace is known by its path, without touching it.
    const auto isInside = [&canonicalPath](const Mount& mount) {
        return isAtOrBelow(mount.place, canonicalPath);
    };
    const std::vector<Mount>& mounts = own().mounts();
    if (std::any_of(mounts.cbegin(), mounts.cend(), isInside))
        return Involvement::MountPoint;
    const auto location = locate(canonicalPath, mountNumber);
    if (!location)
        return Involvement::None;
    if (hasAtOrBelow(m_places, *location))
        return Involvement::MountPoint;
    return hasAtOrBelow(m_sources, *location) ? Involvement::Source : Involvement::None;
}

} // namespace korvane::linux_platform
