// The service that lists and controls operating-system services.
#pragma once

#include "base/op_result.h"
#include "base/singleton.h"
#include "base/system_records.h"

#include <QObject>

namespace korvane {

/// Fronts the operating system's service manager: validates writes before the platform layer sees
/// them. Main thread only.
class ServiceManagerService : public QObject, public Singleton<ServiceManagerService>
{
    Q_OBJECT

public:
    /// All services, in the back end's order. A failure is an empty list and lastError().
    QList<ServiceItem> listAll() const;

    /// Names of the services that depend on `name`; empty for an empty name or on failure.
    QList<QString> enumDependents(const QString& name) const;

    /// Names of the services that `name` depends on; empty for an empty name or on failure.
    QList<QString> queryDependencies(const QString& name) const;

    /// Each of these changes the service with the key name `name`; not ok for an empty name.
    OpResult startService(const QString& name);
    OpResult stopService(const QString& name);
    OpResult setEnabled(const QString& name, bool enabled);

    /// Changes the start type; not ok for an empty name, a driver's type or Unknown.
    OpResult setStartType(const QString& name, ServiceStartType type);

    /// The failure text of the last listAll(); empty after a success.
    QString lastError() const { return m_lastError; }

private:
    friend class Singleton<ServiceManagerService>;
    ServiceManagerService() = default;

    /// Platform operations. The listing writes a short text to `error` (may be null) on failure
    /// and returns an empty list; the dependency queries have no error channel.
    QList<ServiceItem> enumPlatform(QString* error) const;
    QList<QString> enumDependentsPlatform(const QString& name) const;
    QList<QString> queryDependenciesPlatform(const QString& name) const;
    OpResult startServicePlatform(const QString& name);
    OpResult stopServicePlatform(const QString& name);
    OpResult setEnabledPlatform(const QString& name, bool enabled);
    OpResult setStartTypePlatform(const QString& name, ServiceStartType type);

    mutable QString m_lastError;
    mutable QStringList m_shownNames; ///< Of the latest listing that had no failure.
};

} // namespace korvane
