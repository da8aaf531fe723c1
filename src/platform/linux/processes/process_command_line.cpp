// Process command lines from /proc.
#include "platform/processes.h"

#include "platform/linux/sys/proc_fs.h"

namespace korvane {

QString platform::processCommandLine(unsigned int pid)
{
    // The kernel allows arguments of 6 MiB; a process that says it has more is not believed.
    constexpr qsizetype maxBytes = qsizetype{8} * 1024 * 1024;
    linux_platform::ProcFs procFs;
    if (!procFs.isOpen())
        return {};
    auto content = procFs.readWholeFile(pid, "cmdline", maxBytes);
    if (content && content->isEmpty()) {
        const auto task = procFs.livingTask(pid);
        if (task && task->tid != 0)
            content = procFs.readWholeFile(*task, "cmdline", maxBytes);
    }
    return content ? linux_platform::commandLineFromCmdline(*content) : QString();
}

} // namespace korvane
