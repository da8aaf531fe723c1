// "Show yourself": how a second start has the first one raise its window.
#pragma once

#include "platform/local_channel.h"

#include <QObject>

#include <memory>

namespace korvane::desk {

/// Listens on a socket of its own, never the consent channel's, for this program's own user. A
/// connection says all there is to say. Main thread only.
class Doorbell : public QObject
{
    Q_OBJECT

public:
    /// Listens. Called after Desk::start(), where otherDesk() tells of none: else it would take the
    /// other's place.
    bool listen();

    /// Has the desk that listens raise itself. False where none of this user's does.
    static bool ring();

Q_SIGNALS:
    void rung();

private:
    std::unique_ptr<platform::LocalListener> m_listener;
};

} // namespace korvane::desk
