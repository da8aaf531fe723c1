// Making sure that nobody has a file open, whoever may not be looked into.
#pragma once

#include "platform/linux/sys/proc_fs.h"

namespace korvane::linux_platform {

/// Holds a regular file of this user's by a write lease: the kernel grants one only while nobody else
/// has the file open, and keeps all who would open it waiting until the object is gone.
class FileHold
{
public:
    /// Asks for the file `name` of `directory`; links are not followed. Never waits for another program.
    FileHold(int directory, const char* name);

    /// 0 where the file is held. Else an errno, and then anything may be in use: EBUSY where somebody
    /// has it open, or it is no regular file; EOPNOTSUPP where its file system has no leases; or what
    /// opening and leasing came to.
    int error() const { return m_error; }

    /// Whether the files of `directory` can be asked for: not those of a server, which may be dead,
    /// and which alone knows who has them open.
    static bool isPossibleIn(int directory);

private:
    UniqueFd m_file;
    int m_error = 0;
};

} // namespace korvane::linux_platform
