// What systemd's lists tell of services, apart from the bus that they come over.
#pragma once

#include "base/system_records.h"
#include "platform/services.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QMap>

#include <chrono>
#include <optional>

namespace korvane::linux_platform {

/// A service, as far as systemd's lists tell; what they do not is asked for.
struct ListedService
{
    ServiceItem item;
    bool isLoaded = false;
    bool isActive = false; ///< In any of the states in which it may have processes.
    bool hasFile = false;
};
using ListedServices = QMap<QString, ListedService>; ///< By the shown name.

/// The name under which the service unit `unitName` is shown: without ".service". None for other
/// units, templates, and what systemd would not take for a unit's name.
std::optional<QString> serviceNameOf(QByteArrayView unitName);

/// The unit of the service that is shown as `serviceName`.
QByteArray unitNameOf(const QString& serviceName);

/// The run state for systemd's ActiveState, the start type for the state of a unit's file.
ServiceState serviceStateFrom(QByteArrayView activeState);
ServiceStartType startTypeFrom(QByteArrayView fileState);

/// Adds a row of the manager's ListUnitsByPatterns, unless it is no service, or one that is only
/// named by others.
void addLoadedUnit(ListedServices& services, QByteArrayView unitName, QByteArrayView description,
                   QByteArrayView loadState, QByteArrayView activeState);

/// Adds a row of the manager's ListUnitFilesByPatterns, unless it is no service, or another's alias.
void addUnitFile(ListedServices& services, QByteArrayView path, QByteArrayView state);

/// All services, by name, asked of systemd within `limit`; a failure is an empty list and
/// its reason in `error` (may be null). `shown` receives the names of a listing without failure.
QList<ServiceItem> listServices(std::chrono::milliseconds limit, QStringList& shown,
                                QString* error);

/// How long each step of a change may take.
struct ControlLimits
{
    std::chrono::milliseconds asking{5000};
    std::chrono::milliseconds authorizing{130'000}; ///< A person may have to enter a password.
    std::chrono::milliseconds job{30'000};          ///< From its acceptance to its end.
};

/// platform::startService() under other limits.
OpResult startService(const QString& name, const QStringList& shown, const ControlLimits& limits);

} // namespace korvane::linux_platform
