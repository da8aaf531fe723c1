// What systemd's unit files say of each other, for changes of which systemd tells nothing beforehand.
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QByteArrayView>
#include <QString>

namespace korvane::linux_platform {

/// Whether `name` can be a unit's name: no path, and nothing that a shell would take apart but "\".
bool isUnitName(QByteArrayView name);

/// The units that enabling one unit may change beside it.
struct EnabledWith
{
    /// What `Also=` names, directly or by way of others, and has links of its own to be made.
    QByteArrayList also;
    /// What `Alias=` names and is another unit so far.
    QByteArrayList replaced;
    QString problem; ///< Why the lists are incomplete; empty when they are not.
};

/// Reads the [Install] sections of `unitName` and the units that these lead to: the unit files and
/// drop-ins in the folders `searchPath` as they are now. A mask of `unitName` is looked behind.
EnabledWith unitsEnabledWith(const QByteArray& unitName, const QByteArrayList& searchPath);

/// The unit whose link `path` is, in a folder of unit files or one of what a unit wants: `unitName`
/// where it is that one's, by its own name or an alias.
QByteArray ownerOfLink(const QByteArray& path, const QByteArray& unitName);

} // namespace korvane::linux_platform
