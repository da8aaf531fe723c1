// Processes without a back end.
#include "platform/processes.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

QList<ProcessSnapshot> platform::listProcesses(ProcessCpuTable& /*cpuTable*/,
                                               ShownProcesses& /*shown*/, QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[ProcessService] 当前平台不支持进程枚举, 返回空列表");
    return unsupported::failedListing<ProcessSnapshot>(error,
                                                       QStringLiteral("当前平台不支持进程枚举"));
}

QList<ProcessSnapshot> platform::processAndAncestors(quint32 /*pid*/)
{
    return {};
}

QString platform::processCommandLine(unsigned int /*pid*/)
{
    return {};
}

OpResult platform::endProcess(unsigned int /*pid*/, const ShownProcesses& /*shown*/)
{
    return {false, QStringLiteral("killProcess 仅支持 Windows")};
}

} // namespace korvane
