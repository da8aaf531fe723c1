// The holders of files without a back end.
#include "platform/file_holders.h"

namespace korvane {

LockerProbe platform::findFileHolders(const QList<QString>& /*paths*/, QList<HeldFile>& /*held*/)
{
    return {false, QStringLiteral("FileUnlockService 仅支持 Windows 10+"), {}};
}

OpResult platform::closeHeldFiles(const QList<HeldFile>& /*held*/)
{
    return {false, QStringLiteral("closeHandlesSync 仅支持 Windows")};
}

OpResult platform::scheduleDeleteOnReboot(const QList<QString>& /*paths*/)
{
    return {false, QStringLiteral("scheduleDeleteOnReboot 仅支持 Windows")};
}

} // namespace korvane
