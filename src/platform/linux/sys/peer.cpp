// Who is at the other end of a local socket, by the credentials that the kernel vouches for.
#include "platform/peer.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"

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

platform::PeerUser relationOf(uid_t user)
{
    const uid_t self = ::geteuid();
    if (user == self)
        return platform::PeerUser::Own;
    if (user == 0)
        return platform::PeerUser::System;
    uid_t caller = 0;
    const bool isCaller = self == 0 && parseNumber(qgetenv("SUDO_UID"), caller) && user == caller;
    return isCaller ? platform::PeerUser::Caller : platform::PeerUser::Other;
}

/// Empty for PID 0, which stands for one that this PID namespace does not show.
QString executableOf(quint32 pid)
{
    ProcFs procFs;
    const auto content = pid == 0 || !procFs.isOpen() ? std::nullopt : procFs.readFile(pid, "stat");
    const auto stat = content ? parseProcStat(*content) : std::nullopt;
    const auto identity = stat ? procFs.identity(pid, *stat) : std::nullopt;
    return identity ? identity->exePath : QString();
}

} // namespace

std::optional<platform::Peer> platform::peerOf(qintptr socketDescriptor)
{
    ucred credentials = {};
    socklen_t size = sizeof credentials;
    const int fd = static_cast<int>(socketDescriptor);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        size != sizeof credentials || !namesOneUser(credentials.uid))
        return std::nullopt;
    Peer peer;
    peer.user = relationOf(credentials.uid);
    peer.userId = QString::number(credentials.uid);
    peer.pid = static_cast<quint32>(credentials.pid);
    peer.executable = executableOf(peer.pid);
    return peer;
}

bool platform::isSamePath(const QString& path, const QString& other)
{
    return path == other;
}

} // namespace korvane
