// Messages that the desktop shows for this program.
#pragma once

#include <QObject>
#include <QString>

#include <memory>

namespace korvane::platform {

/// Has the desktop show a message of plain text, without anything to press, for as long as the result
/// lives. Waits for nobody, and does not tell whether it is seen. Null where no desktop can be asked.
/// Needs the application object; main thread only.
/// Linux: Notify and CloseNotification of org.freedesktop.Notifications, on the session bus.
/// Windows: a balloon of an icon of its own, by Shell_NotifyIconW. Without a back end: null.
std::unique_ptr<QObject> showNotification(const QString& title, const QString& text);

} // namespace korvane::platform
