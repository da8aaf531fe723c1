// What graphical hosts of the services ask of the desktop.
#pragma once

#include <QString>

namespace korvane::platform {

/// Keeps the machine from sleeping while `on`; false when it cannot.
bool setKeepAwake(bool on);

/// Empties the recycle bin; false when it cannot.
bool emptyRecycleBin();

/// Removes the downloaded-from-the-internet marker of the file at `path`; false when it cannot.
bool removeMarkOfTheWeb(const QString& path);

/// Toggles always-on-top of the foreground window; the new state, or -1 when it cannot.
int toggleForegroundWindowTopmost();

} // namespace korvane::platform
