// The service that lists installed software and starts its removal.
#pragma once

#include "base/op_result.h"
#include "base/singleton.h"
#include "base/system_records.h"

#include <QObject>

namespace korvane {

/// Lists installed software through the platform layer. Main thread only.
class UninstallService : public QObject, public Singleton<UninstallService>
{
    Q_OBJECT

public:
    /// All entries, in the back end's order. A failure is an empty list and lastError().
    QList<UninstallEntry> listAll() const;

    /// Starts the removal of `entry`; not ok when it names no command for that.
    OpResult executeUninstall(const UninstallEntry& entry);

    /// The failure text of the last listing; empty after a success.
    QString lastError() const { return m_lastError; }

private:
    friend class Singleton<UninstallService>;
    UninstallService() = default;

    /// Platform operation: every installed program. On failure writes a short text to `error`
    /// (may be null) and returns an empty list.
    QList<UninstallEntry> enumPlatform(QString* error) const;

    /// Platform operation: runs the command that uninstalls `entry`.
    OpResult executeUninstallPlatform(const UninstallEntry& entry);

    mutable QString m_lastError;
};

} // namespace korvane
