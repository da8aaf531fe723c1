// What can be known of an entry before it is moved away.
#pragma once

#include <QString>

#include <windows.h>

namespace korvane::windows_platform {

/// An entry, with all that is in it where it is a directory.
struct ExaminedEntry
{
    bool isGone = false; ///< Nothing is there any more.
    QString keptBecause; ///< Why it has to stay, in a word or two; empty where it need not.
    qint64 bytes = 0;
};

/// Looks at the entry at `path`, a drivePath(), by opening it and each that it holds for deletion, and
/// files for writing too, which programs that run are not. Links are opened themselves, and not
/// entered. Each entry is a step to the Watchdog.
ExaminedEntry examineEntry(const QString& path);

/// What to call a failure of the system in a word or two; empty for that of what is not there.
QString keptBecauseOf(DWORD error);

} // namespace korvane::windows_platform
