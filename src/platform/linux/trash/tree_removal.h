// Removing what is no longer needed: a directory tree, or an original that has been copied.
#pragma once

#include <QtGlobal>

namespace korvane::linux_platform {

/// Removes the entry `name` of the directory `parent`, of this program's own making, with everything
/// in it. 0, or the errno for which something is still there.
int removeTree(int parent, const char* name);

/// What removing an original came to.
struct RemovedOriginal
{
    bool isGone = false;     ///< Nothing of it is left.
    bool isUntouched = true; ///< All of it is left.
    int error = 0;           ///< The first failure, an errno; 0 where what is left had changed.
};

/// Removes of the entry `name` of `parent` what the entry `copyName` of `copyParent` has too: of the
/// same kind, size and modification time, or link target. What came or changed since stays, and each
/// file of which it is not certain that nobody has it open.
RemovedOriginal removeOriginal(int parent, const char* name, int copyParent, const char* copyName);

} // namespace korvane::linux_platform
