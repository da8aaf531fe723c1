// What graphical hosts of the services ask of the desktop. Linux has a back end for none of it.
#pragma once

#include <QString>

namespace korvane::platform {

/// Keeps the machine from sleeping while `on`, and the calling thread lives; false when it cannot.
/// Windows: SetThreadExecutionState.
bool setKeepAwake(bool on);

/// Empties the recycle bin; false when it cannot. Windows: SHEmptyRecycleBinW, without a window.
bool emptyRecycleBin();

/// Removes the downloaded-from-the-internet marker of the file at `path`; false when it cannot. A
/// file without one is as it should be. Windows: its stream Zone.Identifier.
bool removeMarkOfTheWeb(const QString& path);

/// Toggles always-on-top of the foreground window; the new state, or -1 when it cannot.
/// Windows: SetWindowPos; not for a window that does not respond, or of a program with more rights.
int toggleForegroundWindowTopmost();

} // namespace korvane::platform
