// Holds files by leases.
#include "platform/linux/trash/file_hold.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace korvane::linux_platform {

namespace {

constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Those that linux/magic.h leaves out, or not every version of it has.
constexpr unsigned long cifsMagic = 0xff534d42;
constexpr unsigned long smb2Magic = 0xfe534d42;
constexpr unsigned long cephMagic = 0x00c36400;
constexpr unsigned long lustreMagic = 0x0bd00bd0;

int lease(int file)
{
    struct stat info = {};
    if (::fstat(file, &info) != 0)
        return errno;
    if (!S_ISREG(info.st_mode))
        return EBUSY;
    // One who waits to open it is told of by a signal: let it be one that does nothing.
    if (::fcntl(file, F_SETSIG, SIGURG) != 0 || ::fcntl(file, F_SETLEASE, F_WRLCK) != 0)
        return errno == EINVAL ? EOPNOTSUPP : errno;
    return 0;
}

int hold(int file)
{
    const int error = file < 0 ? errno : lease(file);
    // Somebody has it open, or under a lease of their own; or something else has taken its place.
    return error == EAGAIN || error == ELOOP || error == ENXIO ? EBUSY : error;
}

} // namespace

FileHold::FileHold(int directory, const char* name)
    : m_file(::openat(directory, name, flags)), m_error(hold(m_file.get()))
{
}

bool FileHold::isPossibleIn(int directory)
{
    static constexpr std::array<unsigned long, 11> servers{
        FUSE_SUPER_MAGIC, NFS_SUPER_MAGIC, SMB_SUPER_MAGIC, cifsMagic, smb2Magic,  V9FS_MAGIC,
        CODA_SUPER_MAGIC, AFS_SUPER_MAGIC, AFS_FS_MAGIC,    cephMagic, lustreMagic};
    struct statfs info = {};
    if (::fstatfs(directory, &info) != 0)
        return false;
    const auto type = static_cast<unsigned long>(info.f_type) & 0xffffffffUL;
    return std::find(servers.begin(), servers.end(), type) == servers.end();
}

} // namespace korvane::linux_platform
