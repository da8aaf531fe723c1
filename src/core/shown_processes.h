// The program's one record of the processes that it has shown.
#pragma once

#include "base/shown_processes.h"

namespace korvane {

/// What the latest listings of processes and connections showed; what ends a process acts on nothing
/// else. Main thread only.
ShownProcesses& shownProcesses();

} // namespace korvane
