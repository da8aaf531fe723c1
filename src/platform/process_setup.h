// Making this process ready to serve: its streams, its signals, its locale.
#pragma once

#include "base/shared_processor.h"
#include "base/standard_streams.h"

#include <QObject>

#include <functional>
#include <memory>

namespace korvane::platform {

/// Prepares the process and opens its standard input and output. Called first of all, on the main
/// thread, before anything is opened and before there is an application object: texts are UTF-8 from
/// then on, a write to a closed pipe fails instead of ending the process, and a line of the framework's
/// log does not look for its rules in the home.
/// Linux: descriptors 0 and 1, with the null device in the place of one that is closed; they may be
/// non-blocking, and stay as they are, since whoever started the program may share them.
/// Windows: the handles of GetStdHandle, with the parent's console in the place of an output that was
/// not handed over, until watchForQuit() has the event loop run, and the null device where there is none
/// either. A console's code page is UTF-8 until the end. No window of the system's asks for a disk, and
/// libraries are not looked for in the working directory.
/// Without a back end: the streams of the standard library.
std::unique_ptr<StandardStreams> prepareProcess();

/// What keeps the calling thread, the main one, and another on one processor; does nothing on Windows
/// and without a back end. Linux: sched_setaffinity.
std::unique_ptr<SharedProcessor> makeSharedProcessor();

/// What watches for the system's demand to end this program, for as long as it lives: `quit` is then
/// called by the event loop, once. Needs the application object; one at a time. Null without a back end.
/// Linux: SIGTERM, SIGINT and SIGHUP; the same one again ends the program at once.
/// Windows: what SetConsoleCtrlHandler tells of; the second ends the program at once. A program that had
/// no console of its own leaves that of its parent.
std::unique_ptr<QObject> watchForQuit(std::function<void()> quit);

} // namespace korvane::platform
