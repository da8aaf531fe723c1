// What the kernel refuses this process from now on, so that a test sees what becomes of that.
#pragma once

#include <QtGlobal>

#include <array>
#include <cstddef>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace korvane::test {

/// The descriptor that the next file gets; those that follow it are free too.
inline int nextDescriptor()
{
    int next = 0;
    while (next < 64)
        next = ::dup(STDIN_FILENO);
    ::close(next);
    return next;
}

/// Lets this process open so many files more; false where that is refused.
inline bool leaveDescriptors(int count)
{
    const auto limit = static_cast<rlim_t>(nextDescriptor()) + static_cast<rlim_t>(count);
    const rlimit limits{limit, limit};
    return ::setrlimit(RLIMIT_NOFILE, &limits) == 0;
}

/// Lets a system call fail whose argument `index` has this value; false where that is refused.
inline bool refuseCall(quint32 number, int value, quint32 errorNumber, quint32 index = 0)
{
    const auto argument = static_cast<quint32>(value);
    const auto place = static_cast<quint32>(offsetof(seccomp_data, args)) + 8 * index; // low half
    std::array filter{
        sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 3),
        sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, place),
        sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument, 0, 1),
        sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | errorNumber),
        sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace korvane::test
