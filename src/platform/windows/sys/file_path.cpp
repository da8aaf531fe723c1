// The prefix that hands a path over unparsed.
#include "platform/windows/sys/file_path.h"

#include <QDir>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1StringView prefix(R"(\\?\)");

bool beginsWithDrive(QStringView path)
{
    constexpr qsizetype driveLength = 3; // "C:\"
    return path.size() >= driveLength && path[0].isLetter() && path[0].unicode() < 0x80 &&
           path[1] == u':' && (path[2] == u'\\' || path[2] == u'/');
}

} // namespace

QString extendedPath(const QString& path)
{
    return beginsWithDrive(path) ? prefix + QDir::toNativeSeparators(QDir::cleanPath(path))
                                 : QDir::toNativeSeparators(path);
}

bool isOnDrive(const QString& path)
{
    return beginsWithDrive(displayPath(path));
}

QString displayPath(const QString& path)
{
    const QString native = QDir::toNativeSeparators(path);
    const bool isExtended =
        native.startsWith(prefix) && beginsWithDrive(QStringView(native).sliced(prefix.size()));
    return isExtended ? native.sliced(prefix.size()) : native;
}

} // namespace korvane::windows_platform
