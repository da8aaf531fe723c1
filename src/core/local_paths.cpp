// Existence, after the platform has let it be asked for.
#include "core/local_paths.h"

#include "platform/paths.h"

#include <QDir>
#include <QFileInfo>

namespace korvane {

bool existsLocally(const QString& path)
{
    return platform::isLocalPath(path) && QFileInfo::exists(path);
}

bool isLocalDirectory(const QString& path)
{
    return platform::isLocalPath(path) && QDir(path).exists();
}

} // namespace korvane
