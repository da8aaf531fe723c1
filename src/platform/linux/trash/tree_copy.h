// Copying an entry with everything in it.
#pragma once

namespace korvane::linux_platform {

/// Copies the entry `name` of the directory `parent`, a file, a link or a directory with everything in
/// it, to the new entry `copyName` of the directory `to`, which is this program's alone; there it also
/// uses the name copyName + "-links". Names of one file stay names of one file. 0, or an errno as in
/// file_copy.h; then an unfinished copy may be left.
int copyTree(int parent, const char* name, int to, const char* copyName);

} // namespace korvane::linux_platform
