// Listing of installed software, and the check before a removal.
#include "core/software.h"

#include "platform/software.h"

namespace korvane {

using namespace Qt::StringLiterals;

QList<UninstallEntry> UninstallService::listAll() const
{
    QString error;
    QList<UninstallEntry> entries = enumPlatform(&error);
    m_lastError = error;
    return entries;
}

OpResult UninstallService::executeUninstall(const UninstallEntry& entry)
{
    if (entry.uninstallString.trimmed().isEmpty()) {
        return {false, u"该软件未在注册表提供 UninstallString,无法启动卸载程序 "
                       "(可能是系统应用或 MSIX/Store 应用)。"_s};
    }
    return executeUninstallPlatform(entry);
}

QList<UninstallEntry> UninstallService::enumPlatform(QString* error) const
{
    return platform::listSoftware(error);
}

OpResult UninstallService::executeUninstallPlatform(const UninstallEntry& entry)
{
    return platform::uninstallSoftware(entry);
}

} // namespace korvane
