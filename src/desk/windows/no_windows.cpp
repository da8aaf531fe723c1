// The desk without windows: it can be had at a terminal only.
#include "desk/windows.h"

#include <QDebug>

namespace korvane::desk {

std::unique_ptr<QCoreApplication> makeWindowApplication(int& /*argc*/, char** /*argv*/)
{
    qCritical("korvane-desk: 此版本没有窗口, 请用 korvane-desk --terminal");
    return nullptr;
}

int runWindows(Desk& /*desk*/)
{
    return 1;
}

} // namespace korvane::desk
