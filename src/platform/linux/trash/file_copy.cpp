// Copies files with all that belongs to them.
#include "platform/linux/trash/file_copy.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/sys/proc_fs.h"

#include <QByteArray>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

constexpr std::size_t bufferSize = 256UL * 1024;
constexpr qsizetype namesLimit = 64L * 1024; // the kernel's own, for names and for a value
constexpr int tries = 3;                     // of reading what grows while it is read

int writeAll(int file, const char* bytes, std::size_t size, off_t at)
{
    while (size > 0) {
        const ssize_t written = ::pwrite(file, bytes, size, at);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written == 0 ? ENOSPC : errno;
        bytes += written;
        at += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

int copyRange(int from, int to, off_t at, off_t end, std::vector<char>& buffer)
{
    while (at < end) {
        const auto wanted =
            static_cast<std::size_t>(std::min(end - at, static_cast<off_t>(buffer.size())));
        const ssize_t bytes = ::pread(from, buffer.data(), wanted, at);
        if (bytes < 0 && errno == EINTR)
            continue;
        if (bytes <= 0) // it has become shorter
            return bytes == 0 ? EBUSY : errno;
        const int error = writeAll(to, buffer.data(), static_cast<std::size_t>(bytes), at);
        if (error != 0)
            return error;
        at += bytes;
    }
    return 0;
}

/// Copies what is no hole.
int copyContents(int from, int to, off_t size, std::vector<char>& buffer)
{
    buffer.resize(bufferSize);
    if (::ftruncate(to, size) != 0)
        return errno;
    off_t at = 0;
    while (at < size) {
        off_t end = size;
        off_t data = ::lseek(from, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            return 0;
        if (data < 0)
            data = at; // a file system that knows no holes
        else
            end = std::min(size, ::lseek(from, data, SEEK_HOLE));
        if (data >= size)
            return 0;
        const int error = end > data ? copyRange(from, to, data, end, buffer) : EBUSY;
        if (error != 0)
            return error;
        at = end;
    }
    return 0;
}

/// Reads what the kernel gives by `read(buffer, size)`, where size 0 asks for the size.
template <typename Read> ssize_t readSized(QByteArray& value, Read read)
{
    for (int i = 0; i < tries; ++i) {
        const ssize_t size = read(nullptr, 0);
        if (size <= 0 || size > namesLimit) {
            value.clear();
            return std::min<ssize_t>(size, 0);
        }
        value.resize(size);
        const ssize_t bytes = read(value.data(), static_cast<std::size_t>(size));
        if (bytes >= 0) {
            value.resize(bytes);
            return bytes;
        }
        if (errno != ERANGE)
            return -1;
    }
    return -1;
}

/// Whether a copy without the attribute would be less than the original. The others belong to the
/// system, which gives the copy what it should have.
bool isUsersOwn(const QByteArray& name)
{
    return name.startsWith("user.") || name.startsWith("system.posix_acl_");
}

int copyExtendedAttributes(int from, int to)
{
    QByteArray names;
    const ssize_t listed = readSized(
        names, [from](char* to_, std::size_t size) { return ::flistxattr(from, to_, size); });
    if (listed < 0)
        return errno == EOPNOTSUPP ? 0 : errno;
    for (qsizetype at = 0; at < names.size(); at = names.indexOf('\0', at) + 1) {
        const QByteArray name(names.constData() + at);
        QByteArray value;
        const ssize_t got = readSized(value, [&](char* to_, std::size_t size) {
            return ::fgetxattr(from, name.constData(), to_, size);
        });
        if (got < 0 && errno == ENODATA)
            return EBUSY;
        const bool isKept = got >= 0 && ::fsetxattr(to, name.constData(), value.constData(),
                                                    static_cast<std::size_t>(value.size()), 0) == 0;
        if (!isKept && isUsersOwn(name))
            return errno == ENOTSUP || errno == EPERM ? EOPNOTSUPP : errno;
    }
    return 0;
}

} // namespace

int copyAttributes(int from, const struct stat& info, int to)
{
    mode_t mode = info.st_mode & ALLPERMS;
    if (::fchown(to, info.st_uid, info.st_gid) != 0) // a group that the user has left
        mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    const int error = copyExtendedAttributes(from, to);
    if (error != 0)
        return error;
    const std::array<timespec, 2> times{info.st_atim, info.st_mtim};
    struct stat copy = {};
    if (::fchmod(to, mode) != 0 || ::futimens(to, times.data()) != 0 || ::fstat(to, &copy) != 0)
        return errno;
    // By its time a copy is known to be one.
    return isSameTime(copy.st_mtim, info.st_mtim) ? 0 : EOPNOTSUPP;
}

int copyFile(int from, const char* name, int to, const char* copyName, std::vector<char>& buffer)
{
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd original(::openat(from, name, flags | O_NOATIME)); // it may have to stay as it was
    if (!original.isValid() && errno == EPERM)
        original = UniqueFd(::openat(from, name, flags));
    struct stat info = {};
    struct stat after = {};
    if (!original.isValid() || ::fstat(original.get(), &info) != 0)
        return errno == ELOOP || errno == ENXIO || errno == ENOENT ? EBUSY : errno;
    if (!S_ISREG(info.st_mode))
        return EBUSY;
    const UniqueFd copy(
        ::openat(to, copyName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!copy.isValid())
        return errno;
    int error = copyContents(original.get(), copy.get(), info.st_size, buffer);
    if (error == 0)
        error = copyAttributes(original.get(), info, copy.get());
    if (error != 0)
        return error;
    if (::fstat(original.get(), &after) != 0)
        return errno;
    const bool isUnchanged = after.st_size == info.st_size &&
                             isSameTime(after.st_mtim, info.st_mtim) &&
                             isSameTime(after.st_ctim, info.st_ctim);
    return isUnchanged ? 0 : EBUSY;
}

int copyLink(int from, const char* name, int to, const char* copyName)
{
    std::array<char, PATH_MAX> target{};
    struct stat info = {};
    if (::fstatat(from, name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::readlinkat(from, name, target.data(), target.size() - 1) < 0)
        return errno == EINVAL || errno == ENOENT ? EBUSY : errno;
    const std::array<timespec, 2> times{info.st_atim, info.st_mtim};
    if (::symlinkat(target.data(), to, copyName) != 0)
        return errno;
    (void)::fchownat(to, copyName, info.st_uid, info.st_gid, AT_SYMLINK_NOFOLLOW);
    return ::utimensat(to, copyName, times.data(), AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

} // namespace korvane::linux_platform
