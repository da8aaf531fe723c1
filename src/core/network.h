// The service that lists network connections.
#pragma once

#include "base/singleton.h"
#include "base/system_records.h"

#include <QObject>

namespace korvane {

/// Lists TCP and UDP endpoints through the platform layer. Main thread only.
class NetMonitorService : public QObject, public Singleton<NetMonitorService>
{
    Q_OBJECT

public:
    /// All endpoints, in the back end's order. A failure is an empty list and lastError().
    QList<NetConnection> listAll() const;

    /// The failure text of the last listing; empty after a success.
    QString lastError() const { return m_lastError; }

private:
    friend class Singleton<NetMonitorService>;
    NetMonitorService() = default;

    /// Platform operation: every endpoint with its owner. On failure writes a short text to
    /// `error` (may be null) and returns an empty list.
    QList<NetConnection> enumPlatform(QString* error) const;

    mutable QString m_lastError;
};

} // namespace korvane
