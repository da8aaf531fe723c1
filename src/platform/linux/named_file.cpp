// Follows a path of another process step by step.
#include "platform/linux/named_file.h"

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

/// As many as the kernel follows.
constexpr int mostLinks = 40;

/// More parts than any path has that leads somewhere.
constexpr qsizetype mostParts = PATH_MAX;

QByteArray readLink(int directory, const QByteArray& path)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlinkat(directory, path.constData(), target.data(), target.size());
    return size > 0 ? QByteArray(target.data(), size) : QByteArray();
}

/// The parts of a path, the last one first.
QByteArrayList reversedParts(const QByteArray& path)
{
    QByteArrayList parts = path.split('/');
    std::reverse(parts.begin(), parts.end());
    return parts;
}

} // namespace

bool mayHang(const QByteArray& fileSystemType)
{
    static constexpr std::array<QByteArrayView, 12> beginnings{
        "fuse", "nfs", "9p",     "cifs",     "smb",  "autofs",
        "ceph", "afs", "lustre", "virtiofs", "coda", "gluster"};
    return std::any_of(beginnings.begin(), beginnings.end(), [&](QByteArrayView beginning) {
        return fileSystemType.startsWith(beginning);
    });
}

NamedFile followAs(const ProcFs& proc, quint32 pid, const MountTable& table, const QByteArray& path)
{
    const QByteArray process = QByteArray::number(pid);
    NamedFile named;
    QByteArray reached; // below the root of the process; "" is that root
    if (!path.startsWith('/')) {
        // Seen from another root, its working directory would have another path.
        if (readLink(proc.descriptor(), process + "/root") != "/")
            return named;
        reached = readLink(proc.descriptor(), process + "/cwd");
        if (!reached.startsWith('/'))
            return named;
        reached = reached == "/" ? QByteArray() : reached;
    }
    QByteArrayList parts = reversedParts(path);
    int links = 0;
    while (!parts.isEmpty() && named.error == 0) {
        const QByteArray part = parts.takeLast();
        if (part.isEmpty() || part == ".")
            continue;
        if (part == "..") {
            reached.truncate(std::max(reached.lastIndexOf('/'), qsizetype{0}));
            continue;
        }
        const QByteArray next = reached + '/' + part;
        const Mount* mount = table.at(next);
        struct statx found = {};
        constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
        if (mount != nullptr && mayHang(mount->type))
            named.error = EREMOTE;
        else if (::statx(proc.descriptor(), (process + "/root" + next).constData(), flags,
                         STATX_TYPE | STATX_INO, &found) != 0)
            named.error = errno;
        const std::pair<dev_t, ino_t> identity(makedev(found.stx_dev_major, found.stx_dev_minor),
                                               found.stx_ino);
        if (named.error != 0 || !S_ISLNK(found.stx_mode)) {
            reached = next;
            const bool isEnd = std::all_of(parts.cbegin(), parts.cend(), [](const auto& rest) {
                return rest.isEmpty() || rest == ".";
            });
            if (named.error == 0 && isEnd)
                named.files.push_back(identity);
            continue;
        }
        named.files.push_back(identity);
        const QByteArray target = readLink(proc.descriptor(), process + "/root" + next);
        if (++links > mostLinks || parts.size() > mostParts || target.isEmpty()) {
            named.error = ELOOP;
            reached = next;
            continue;
        }
        if (target.startsWith('/'))
            reached.clear();
        parts += reversedParts(target);
    }
    std::reverse(parts.begin(), parts.end());
    named.path = parts.isEmpty() ? reached : reached + '/' + parts.join('/');
    return named;
}

} // namespace korvane::linux_platform
