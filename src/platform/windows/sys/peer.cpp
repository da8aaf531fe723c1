// Who is at the other end of a named pipe, by the pipe's owner and the token of the process there.
#include "platform/peer.h"

#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/security.h"

#include <QDir>

#include <algorithm>

#include <aclapi.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace windows_platform;
using platform::PeerUser;

constexpr QLatin1StringView systemSid{"S-1-5-18"};
constexpr QLatin1StringView administratorsSid{"S-1-5-32-544"};

/// The SID of whom the pipe belongs to; empty where that cannot be told. Only who may act as that SID
/// can have set it, or who may do anything.
QString ownerOf(HANDLE pipe)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                        nullptr, nullptr, &descriptor) != ERROR_SUCCESS)
        return {};
    const UniqueLocal<void> content(descriptor);
    return sidText(owner);
}

/// The level of whoever made the pipe, which the system writes on it where that is low.
quint32 integrityOfPipe(HANDLE pipe)
{
    PACL labels = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    void* label = nullptr;
    const DWORD error = GetSecurityInfo(pipe, SE_KERNEL_OBJECT, LABEL_SECURITY_INFORMATION, nullptr,
                                        nullptr, nullptr, &labels, &descriptor);
    const UniqueLocal<void> content(error == ERROR_SUCCESS ? descriptor : nullptr);
    if (!content || labels == nullptr || GetAce(labels, 0, &label) == FALSE ||
        static_cast<const ACE_HEADER*>(label)->AceType != SYSTEM_MANDATORY_LABEL_ACE_TYPE)
        return SECURITY_MANDATORY_MEDIUM_RID;
    return integrityOf(&static_cast<SYSTEM_MANDATORY_LABEL_ACE*>(label)->SidStart);
}

/// Whether it is less than what the user's programs are: those in a sandbox, such as pages of a browser
/// and apps in a container, have the user's SID too, but must not speak for him.
bool isConfined(quint32 integrity)
{
    return integrity < std::min<quint32>(ownUser()->integrity, SECURITY_MANDATORY_MEDIUM_RID);
}

/// The process that connected to the pipe, or that listened for this one; 0 where that is not told.
quint32 otherProcess(HANDLE pipe)
{
    DWORD flags = 0;
    ULONG pid = 0;
    if (GetNamedPipeInfo(pipe, &flags, nullptr, nullptr, nullptr) == FALSE)
        return 0;
    const bool isServer = (flags & PIPE_SERVER_END) != 0;
    const BOOL isTold = isServer ? GetNamedPipeClientProcessId(pipe, &pid)
                                 : GetNamedPipeServerProcessId(pipe, &pid);
    return isTold == FALSE ? 0 : pid;
}

/// `isPrivileged` tells of a user who is not this one that everything is his anyway.
PeerUser relationOf(const QString& sid, bool isPrivileged)
{
    if (sid == ownUser()->sid)
        return PeerUser::Own;
    return isPrivileged || sid == systemSid ? PeerUser::System : PeerUser::Other;
}

} // namespace

/// The PID alone would not do: who made the pipe may have ended, with its end in another's hands, and
/// another program may have that PID by now. The owner stays, so that nobody gets more trust by it than
/// that user has; another program of his can pass for the one that is shown.
std::optional<platform::Peer> platform::peerOf(qintptr socketDescriptor)
{
    auto* const pipe = reinterpret_cast<HANDLE>(socketDescriptor);
    const quint32 pid = otherProcess(pipe);
    const UniqueHandle process = pid == 0 ? nullptr : openProcess(pid);
    const auto user = process ? userOf(process.get()) : std::nullopt;
    const QString owner = ownerOf(pipe);
    if (!user || owner.isEmpty() || !ownUser())
        return std::nullopt;
    const PeerUser byOwner = relationOf(owner, owner == administratorsSid);
    const PeerUser byToken = relationOf(user->sid, user->isElevated);
    Peer peer{.user = PeerUser::System,
              .userId = user->sid,
              .pid = pid,
              .executable = imagePath(process.get())};
    if (byOwner == PeerUser::Other || byToken == PeerUser::Other || isConfined(user->integrity) ||
        isConfined(integrityOfPipe(pipe)))
        peer.user = PeerUser::Other;
    else if (byOwner == PeerUser::Own && byToken == PeerUser::Own)
        peer.user = PeerUser::Own;
    return peer;
}

bool platform::isSamePath(const QString& path, const QString& other)
{
    const auto plain = [](const QString& one) { return QDir::toNativeSeparators(one); };
    return plain(path).compare(plain(other), Qt::CaseInsensitive) == 0;
}

} // namespace korvane
