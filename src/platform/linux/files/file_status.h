// Comparing what the file system tells of files.
#pragma once

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace korvane::linux_platform {

/// To open a directory, and nothing that a link leads to.
inline constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

inline bool isSameTime(const timespec& one, const timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

inline bool isSameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// 0 where the directory has an entry `name`, ENOENT where it has none, or why that cannot be told.
inline int lookUp(int directory, const char* name)
{
    struct stat info = {};
    return ::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

/// Whether the directory has an entry `name`, or that cannot be told.
inline bool hasEntry(int directory, const char* name)
{
    return lookUp(directory, name) != ENOENT;
}

} // namespace korvane::linux_platform
