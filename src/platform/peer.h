// Who is at the other end of a local socket.
#pragma once

#include <QString>

#include <optional>

namespace korvane::platform {

/// Whose program it is, as seen from this one.
enum class PeerUser {
    Own,    ///< This program's own user.
    System, ///< The machine's administrator: root; SYSTEM, or elevated.
    Caller, ///< For a program that runs as the administrator: who had it started so, as by sudo.
    Other,
};

/// The program at the other end.
struct Peer
{
    PeerUser user = PeerUser::Other;
    QString userId;     ///< The user's number or name, as the system has it; for people.
    quint32 pid = 0;    ///< 0 where it is not visible.
    QString executable; ///< Empty where it cannot be read.
};

/// The program that connected the local socket with this descriptor, or that listened for it. None
/// where that cannot be told for certain, and then nobody is to be trusted. Any thread.
/// Linux: SO_PEERCRED; never the overflow user of a user namespace that leaves users out
/// (/proc/self/uid_map), as whom all of those read. Windows: GetNamedPipeClientProcessId or
/// ...ServerProcessId and the user of that process's token, together with the pipe's owner
/// (GetSecurityInfo), of whom both must be trusted; an administrator counts as such while elevated, and a
/// program in a sandbox, of low integrity, is somebody else. Without a back end: this program's own user.
std::optional<Peer> peerOf(qintptr socketDescriptor);

/// Whether two absolute paths are one to the system, which is not asked. Any thread.
/// Linux: whether they are equal. Windows: the same, with either separator, in letters of any case.
bool isSamePath(const QString& path, const QString& other);

} // namespace korvane::platform
