// Processes without a back end.
#include "platform/processes.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

using namespace Qt::StringLiterals;

QList<ProcessSnapshot> platform::listProcesses(ProcessCpuTable& /*cpuTable*/,
                                               ShownProcesses& /*shown*/, QString* error)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[ProcessService] 当前平台不支持进程枚举, 返回空列表");
    return unsupported::failedListing<ProcessSnapshot>(error, u"当前平台不支持进程枚举"_s);
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
    return {false, u"killProcess 仅支持 Windows"_s};
}

} // namespace korvane
