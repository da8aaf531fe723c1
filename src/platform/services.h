// Services of the operating system: their list, what they need of one another, and changes to them.
#pragma once

#include "base/op_result.h"
#include "base/system_records.h"

#include <QStringList>

namespace korvane::platform {

/// Every service, by name; `shown` receives their names. A failure is an empty list, with a short text
/// in `error` (may be null), and leaves `shown` as it was. Blocks for 5 s at most. Main thread only, as
/// all of these. Linux: org.freedesktop.systemd1 on the system bus. Windows: EnumServicesStatusExW and
/// QueryServiceConfigW, drivers as well.
QList<ServiceItem> listServices(QStringList& shown, QString* error);

/// Names of the services that depend on `name`, or that it depends on; empty on failure too.
/// Linux: properties of the unit, on the system bus. Windows: EnumDependentServicesW, and
/// QueryServiceConfigW without the groups that it names.
QList<QString> servicesDependingOn(const QString& name);
QList<QString> servicesNeededBy(const QString& name);

/// Each of these changes the service with the key name `name`, and only if `shown` has that name, in
/// any letter case, exactly once. Starting and stopping wait for the end of it, with a limit.
/// Linux: StartUnit, StopUnit, EnableUnitFiles, DisableUnitFiles and MaskUnitFiles, after a look at
/// what else they would change; 30 s for a job, 130 s where a person may have to give a password.
/// Windows: StartServiceW, ControlService and ChangeServiceConfigW, never on drivers; 30 s for all of it.
OpResult startService(const QString& name, const QStringList& shown);
OpResult stopService(const QString& name, const QStringList& shown);
OpResult setServiceEnabled(const QString& name, bool enabled, const QStringList& shown);
OpResult setServiceStartType(const QString& name, ServiceStartType type, const QStringList& shown);

} // namespace korvane::platform
