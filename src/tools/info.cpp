// The tool that tells a client what it is talking to.
#include "tools/handlers.h"

#include "base/identity.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QSysInfo>

namespace korvane {

QJsonObject toolGetAppInfo(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    return {
        {QStringLiteral("name"), identity::applicationName},
        {QStringLiteral("version"), identity::version},
        {QStringLiteral("organization"), identity::organizationDomain},
        {QStringLiteral("platform"), QSysInfo::prettyProductName()},
        {QStringLiteral("kernel_version"), QSysInfo::kernelVersion()},
        {QStringLiteral("qt_version"), identity::qtVersion},
        {QStringLiteral("data_dir"),
         QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)},
        {QStringLiteral("executable"), QCoreApplication::applicationFilePath()},
        {QStringLiteral("description"),
         QStringLiteral("Korvane 系统医生 — 进程/启动项/网络/卸载/大文件 五合一诊断工具")},
    };
}

} // namespace korvane
