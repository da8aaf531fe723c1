// The service that lists and toggles programs started automatically.
#pragma once

#include "base/op_result.h"
#include "base/singleton.h"
#include "base/system_records.h"

#include <QObject>

namespace korvane {

/// Lists startup items through the platform layer and from the service list. Main thread only.
class StartupService : public QObject, public Singleton<StartupService>
{
    Q_OBJECT

public:
    /// All Run-key items, in the back end's order. A failure is an empty list and lastError().
    QList<StartupItem> listAll() const;

    /// The items of one category; empty for a value outside the enumeration. A failure is an
    /// empty list and lastError().
    QList<StartupItem> listCategory(StartupCategory category) const;

    /// The services that start automatically, as startup items. On failure of the service
    /// listing its text goes to `error` (may be null), and the list is empty.
    QList<StartupItem> listServices(QString* error) const;

    /// Enables or disables one item; not ok for an empty name.
    OpResult setEnabled(StartupSource source, const QString& name, bool enabled);

    /// The failure text of the last listing; empty after a success.
    QString lastError() const { return m_lastError; }

private:
    friend class Singleton<StartupService>;
    StartupService() = default;

    /// Platform operations. A listing writes a short text to `error` (may be null) on failure and
    /// returns an empty list.
    QList<StartupItem> enumPlatform(QString* error) const;
    QList<StartupItem> enumScheduledTasksPlatform(QString* error) const;
    QList<StartupItem> enumShellExtensionsPlatform(QString* error) const;
    OpResult setEnabledPlatform(StartupSource source, const QString& name, bool enabled);

    mutable QString m_lastError;
};

} // namespace korvane
