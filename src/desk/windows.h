// The desk's windows, as main() knows them.
#pragma once

#include <QCoreApplication>

#include <memory>

namespace korvane::desk {

class Desk;

/// The application object that windows need. None, with a line on standard error, where the person has
/// no display.
std::unique_ptr<QCoreApplication> makeWindowApplication(int& argc, char** argv);

/// Shows the desk in windows until the person quits; the exit code. The desk has been started, with or
/// without success.
int runWindows(Desk& desk);

} // namespace korvane::desk
