// The holders of files without a back end.
#include "platform/file_holders.h"

namespace korvane {

using namespace Qt::StringLiterals;

LockerProbe platform::findFileHolders(const QList<QString>& /*paths*/, QList<HeldFile>& /*held*/)
{
    return {false, u"FileUnlockService 仅支持 Windows 10+"_s, {}};
}

OpResult platform::closeHeldFiles(const QList<HeldFile>& /*held*/)
{
    return {false, u"closeHandlesSync 仅支持 Windows"_s};
}

OpResult platform::scheduleDeleteOnReboot(const QList<QString>& /*paths*/)
{
    return {false, u"scheduleDeleteOnReboot 仅支持 Windows"_s};
}

} // namespace korvane
