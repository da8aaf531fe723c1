// What is at a path from outside, without asking other machines.
#pragma once

#include <QString>

namespace korvane {

/// Whether something is at `path`; false, without a look, where that leads to another machine or to a
/// device: see platform::isLocalPath().
bool existsLocally(const QString& path);

/// Whether a directory is there, on the same terms; the empty path is the current one.
bool isLocalDirectory(const QString& path);

} // namespace korvane
