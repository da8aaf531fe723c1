// A lock that only one program holds, whose holder is known.
#pragma once

#include <QLockFile>
#include <QString>

#include <memory>

namespace korvane::desk {

/// Takes the lock file at `path`; one that a killed program left is taken over. None where somebody
/// holds it, whose PID goes to `holder`, or where it cannot be made: then `holder` is 0.
std::unique_ptr<QLockFile> takeLock(const QString& path, qint64& holder);

} // namespace korvane::desk
