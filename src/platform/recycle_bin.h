// The recycle bin, from where people get back what was cleaned away.
#pragma once

#include "base/op_result.h"

#include <QList>

namespace korvane::platform {

/// Moves the entries at `paths`, absolute ones, to the recycle bin, from where the user can restore
/// them. Ok unless something was to be moved and nothing could be; the message tells how many were, and
/// how many were not for which reason. A path where nothing is any more counts as neither. Blocks for
/// as long as copying takes. Main thread only.
/// Windows: IFileOperation with a sink that refuses what the bin cannot take, SHFileOperationW where that
/// is not implemented. Never moved is what is in use, lies on no fixed drive, or does not fit.
/// Linux: FreeDesktop.org's trash. Never moved is what is in use, belongs to another user, is a
/// socket, FIFO or device, or holds such a thing.
OpResult moveToRecycleBin(const QList<QString>& paths);

} // namespace korvane::platform
