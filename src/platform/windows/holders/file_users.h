// The processes that use a file, as the system itself tells: whatever it is that they hold it by.
#pragma once

#include <QList>
#include <QString>

#include <optional>
#include <vector>

#include <windows.h>

namespace korvane::windows_platform {

/// The PIDs that use the file, this process included; none where the system does not say.
/// NtQueryInformationFile(FileProcessIdsUsingFileInformation).
std::optional<std::vector<quint32>> usersOf(HANDLE file);

/// A process that the Restart Manager names.
struct NamedUser
{
    quint32 pid = 0;
    quint64 startTime = 0;
    QString name;        ///< For people: a window's or a service's name.
    QString serviceName; ///< Empty where it is no service.
};

/// The processes that use any of these files, not folders; empty where the Restart Manager does not say.
std::vector<NamedUser> namedUsersOf(const QList<QString>& files);

} // namespace korvane::windows_platform
