// File unlocking without a back end.
#include "core/file_unlock_service.h"

namespace korvane {

struct FileUnlockService::Impl
{
};

FileUnlockService::ImplPointer FileUnlockService::makeImplPlatform()
{
    return {std::make_unique<Impl>().release(),
            [](Impl* impl) { std::default_delete<Impl>()(impl); }};
}

LockerProbe FileUnlockService::probeLockers(const QList<QString>& /*paths*/)
{
    return {false, QStringLiteral("FileUnlockService 仅支持 Windows 10+"), {}};
}

OpResult FileUnlockService::closeHandlesSync()
{
    return {false, QStringLiteral("closeHandlesSync 仅支持 Windows")};
}

void FileUnlockService::scheduleDeleteOnReboot(const QList<QString>& /*paths*/)
{
    Q_EMIT operationLog(QStringLiteral("scheduleDeleteOnReboot 仅支持 Windows"), OpLevel::Error);
}

} // namespace korvane
