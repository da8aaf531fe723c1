// The desk's icon in the tray.
#pragma once

#include "desk/desk.h"

#include <QMenu>
#include <QSystemTrayIcon>

#include <memory>

namespace korvane::desk {

/// Shows how many questions wait and whether the desk listens, where the desktop has a tray, and tells
/// of a new question. Main thread only.
class Tray : public QObject
{
    Q_OBJECT

public:
    explicit Tray(Desk& desk);

Q_SIGNALS:
    void windowWanted();
    void questionWanted();

private:
    void update();
    void tellOfQuestion();

    Desk& m_desk;
    QMenu m_menu;
    QSystemTrayIcon m_icon;
    QAction* m_waiting;
    std::unique_ptr<QObject> m_notification; ///< Of the latest question, while any waits.
};

} // namespace korvane::desk
