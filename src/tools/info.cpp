// The tool that tells a client what it is talking to.
#include "tools/handlers.h"

#include "base/identity.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QSysInfo>

namespace korvane {

using namespace Qt::StringLiterals;

QJsonObject toolGetAppInfo(const QJsonObject& /*args*/, const ProgressCallback& /*progress*/)
{
    return {
        {u"name"_s, identity::applicationName},
        {u"version"_s, identity::version},
        {u"organization"_s, identity::organizationDomain},
        {u"platform"_s, QSysInfo::prettyProductName()},
        {u"kernel_version"_s, QSysInfo::kernelVersion()},
        {u"qt_version"_s, identity::qtVersion},
        {u"data_dir"_s, QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)},
        {u"executable"_s, QCoreApplication::applicationFilePath()},
        {u"description"_s, u"Korvane 系统医生 — 进程/启动项/网络/卸载/大文件 五合一诊断工具"_s},
    };
}

} // namespace korvane
