// "Refuse everything for now", as window and tray offer it.
#pragma once

#include "desk/desk.h"

#include <QMenu>

namespace korvane::desk {

/// The state in a sentence, in the person's language: listening, paused until when, what is wrong.
QString stateText(const Desk& desk);

/// Offers a pause of some length, or its end while there is one. Main thread only.
class PauseMenu : public QMenu
{
    Q_OBJECT

public:
    explicit PauseMenu(Desk& desk, QWidget* parent = nullptr);
};

} // namespace korvane::desk
