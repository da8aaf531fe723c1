// The one record of shown processes, made at its first use.
#include "core/shown_processes.h"

namespace korvane {

ShownProcesses& shownProcesses()
{
    static ShownProcesses shown;
    return shown;
}

} // namespace korvane
