// Times a back end's listings by themselves, without their form as JSON and the way to a client.
// Usage: korvane-listings connections|software; each line of input asks for one listing, which is
// answered by its milliseconds.
#include "core/network.h"
#include "core/software.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <iostream>
#include <string>

namespace {

/// Milliseconds; negative, with the reason on standard error, when nothing was listed.
template <typename Service> double timeListing()
{
    QElapsedTimer timer;
    timer.start();
    const auto records = korvane::Singleton<Service>::instance().listAll();
    const auto nanoseconds = static_cast<double>(timer.nsecsElapsed());
    if (!records.isEmpty())
        return nanoseconds / 1e6;
    std::cerr << korvane::Singleton<Service>::instance().lastError().toStdString() << '\n';
    return -1;
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const bool isSoftware = argc > 1 && std::string(argv[1]) == "software";
    std::string line;
    while (std::getline(std::cin, line)) {
        const double milliseconds = isSoftware ? timeListing<korvane::UninstallService>()
                                               : timeListing<korvane::NetMonitorService>();
        if (milliseconds < 0)
            return 1;
        std::cout << milliseconds << std::endl;
    }
    return 0;
}
