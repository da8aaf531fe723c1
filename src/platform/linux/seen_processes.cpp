// The one table of processes that were seen.
#include "platform/linux/seen_processes.h"

namespace korvane::linux_platform {

QHash<quint32, quint64>& seenProcesses()
{
    static QHash<quint32, quint64> seen;
    return seen;
}

} // namespace korvane::linux_platform
