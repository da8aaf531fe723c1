// The search for the largest files below a directory.
#pragma once

#include <QString>

#include <functional>
#include <vector>

namespace korvane {

struct LargeFile
{
    qint64 bytes = 0;
    QString path; ///< With "/" as separator.
};

/// What a search came to.
struct LargeFiles
{
    qint64 scanned = 0;           ///< How many files it met.
    std::vector<LargeFile> files; ///< The largest first.
};

/// Takes a search's progress: files met, files kept so far, and the path of the latest.
using LargeFileProgress = std::function<void(qint64 scanned, qint64 hits, const QString& path)>;

/// Walks the directory `root` whole for the `wanted` largest files of at least `minSize` bytes. After
/// each 500 files tells `progress`, which may be empty. Memory is bounded by `wanted`. Any thread.
LargeFiles findLargeFiles(const QString& root, qint64 minSize, qint64 wanted,
                          const LargeFileProgress& progress);

} // namespace korvane
