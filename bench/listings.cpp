// Times a back end's listings by themselves, without their form as JSON and the way to a client.
// Usage: korvane-listings connections|processes|software; each line of input asks for one listing, which is
// answered by its milliseconds.
#include "core/network.h"
#include "core/processes.h"
#include "core/software.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <iostream>
#include <map>
#include <string>

namespace {

using namespace korvane;

/// Milliseconds; negative, with the reason on standard error, when nothing was listed.
template <typename Service, auto list> double timeListing()
{
    QElapsedTimer timer;
    timer.start();
    const auto records = (Singleton<Service>::instance().*list)();
    const auto nanoseconds = static_cast<double>(timer.nsecsElapsed());
    if (!records.isEmpty())
        return nanoseconds / 1e6;
    std::cerr << Singleton<Service>::instance().lastError().toStdString() << '\n';
    return -1;
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const std::map<std::string, double (*)()> listings{
        {"connections", timeListing<NetMonitorService, &NetMonitorService::listAll>},
        {"processes", timeListing<ProcessService, &ProcessService::listAllProcesses>},
        {"software", timeListing<UninstallService, &UninstallService::listAll>},
    };
    const auto listing = listings.find(argc > 1 ? argv[1] : "connections");
    if (listing == listings.end())
        return 1;
    std::string line;
    while (std::getline(std::cin, line)) {
        const double milliseconds = listing->second();
        if (milliseconds < 0)
            return 1;
        std::cout << milliseconds << std::endl;
    }
    return 0;
}
