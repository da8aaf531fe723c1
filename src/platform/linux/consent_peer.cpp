// Who is at the other end of the consent channel, by the credentials that the kernel vouches for.
#include "platform/platform.h"

#include "platform/linux/proc_fs.h"
#include "platform/linux/text.h"

#include <limits>

#include <sys/socket.h>
#include <unistd.h>

namespace korvane {

namespace {

using namespace linux_platform;

/// Whether every user of the machine has a number in this process's user namespace.
bool areAllUsersMapped()
{
    constexpr qsizetype maxMapBytes = qsizetype{64} * 1024; // The kernel takes 340 lines.
    const auto map = readSystemFile("/proc/self/uid_map", maxMapBytes);
    QByteArrayView rest(map.value_or(QByteArray()));
    quint64 mapped = 0;
    while (!rest.isEmpty()) {
        QByteArrayView line = takeUntil(rest, '\n');
        takeWord(line); // Its first number here,
        takeWord(line); // and in the namespace around.
        quint32 count = 0;
        if (!parseNumber(takeWord(line), count))
            return false;
        mapped += count; // Ranges never overlap.
    }
    return mapped == std::numeric_limits<uid_t>::max(); // The last number is nobody's.
}

/// Whether `uid`, as the kernel told it, can be one user only. All those without a number in this
/// user namespace read as the overflow user, and where there is one of that number too, as that.
bool namesOneUser(uid_t uid)
{
    constexpr qsizetype maxNumberBytes = 32;
    const auto text = readSystemFile("/proc/sys/kernel/overflowuid", maxNumberBytes);
    uid_t overflowUser = 0;
    const bool isKnown = text && parseNumber(QByteArrayView(*text).trimmed(), overflowUser);
    return (isKnown && uid != overflowUser) || areAllUsersMapped();
}

} // namespace

bool platform::mayAnswerForUser(qintptr socketDescriptor)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    const int fd = static_cast<int>(socketDescriptor);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || size != sizeof peer ||
        !namesOneUser(peer.uid))
        return false;
    const uid_t self = ::geteuid();
    if (peer.uid == self || peer.uid == 0)
        return true;
    uid_t invoker = 0;
    return self == 0 && parseNumber(qgetenv("SUDO_UID"), invoker) && peer.uid == invoker;
}

} // namespace korvane
