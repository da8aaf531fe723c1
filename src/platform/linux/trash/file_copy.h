// Copying one file, link or directory's attributes faithfully.
#pragma once

#include <vector>

#include <sys/stat.h>

namespace korvane::linux_platform {

/// Each function returns 0, or an errno: EBUSY where the original changed meanwhile or is not what it
/// was taken for, EOPNOTSUPP where the copy cannot be what the original is.

/// Copies the regular file `name` of the directory `from` to the new file `copyName` of `to`: its
/// contents, as much as there was at the start, with its holes, and its attributes.
int copyFile(int from, const char* name, int to, const char* copyName, std::vector<char>& buffer);

/// Copies a link, which is not followed.
int copyLink(int from, const char* name, int to, const char* copyName);

/// Gives the open file or directory `to` the group, extended attributes, mode and times of the open
/// one `from`, of which `info` told before it was read. Nothing may be written to `to` after that.
int copyAttributes(int from, const struct stat& info, int to);

} // namespace korvane::linux_platform
