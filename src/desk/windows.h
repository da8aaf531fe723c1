// The desk's windows, as main() knows them.
#pragma once

#include <QCoreApplication>

#include <memory>

namespace korvane::desk {

class Desk;

/// The application object that windows need. Where the person has no display, the program ends here,
/// as failed and with a line on standard error.
std::unique_ptr<QCoreApplication> makeWindowApplication(int& argc, char** argv);

/// Shows the desk in windows until the person quits; the exit code. The desk has been started, with or
/// without success. In the background, the main window is not shown at first.
int runWindows(Desk& desk, bool isInBackground);

} // namespace korvane::desk
