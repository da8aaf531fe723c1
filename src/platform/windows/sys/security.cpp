// Reading tokens.
#include "platform/windows/sys/security.h"

#include "platform/windows/sys/text.h"

#include <array>
#include <cstddef>

#include <sddl.h>

namespace korvane::windows_platform {

namespace {

std::optional<TokenUser> readToken(HANDLE token)
{
    // Its SID follows the record itself.
    alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user{};
    alignas(TOKEN_MANDATORY_LABEL)
        std::array<std::byte, sizeof(TOKEN_MANDATORY_LABEL) + SECURITY_MAX_SID_SIZE>
            label{};
    DWORD size = 0;
    if (GetTokenInformation(token, TokenIntegrityLevel, label.data(), label.size(), &size) == FALSE)
        return std::nullopt;
    const auto* const level = reinterpret_cast<const TOKEN_MANDATORY_LABEL*>(label.data());
    if (GetTokenInformation(token, ::TokenUser, user.data(), user.size(), &size) == FALSE)
        return std::nullopt;
    TOKEN_ELEVATION elevation{};
    const bool isKnown =
        GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size) != FALSE;
    const QString sid = sidText(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid);
    if (sid.isEmpty())
        return std::nullopt;
    return windows_platform::TokenUser{sid, isKnown && elevation.TokenIsElevated != 0,
                                       integrityOf(level->Label.Sid)};
}

} // namespace

QString sidText(PSID sid)
{
    wchar_t* text = nullptr;
    if (sid == nullptr || IsValidSid(sid) == FALSE || ConvertSidToStringSidW(sid, &text) == FALSE)
        return {};
    const UniqueLocal<wchar_t> owner(text);
    return fromWide(text);
}

quint32 integrityOf(PSID label)
{
    if (label == nullptr || IsValidSid(label) == FALSE || *GetSidSubAuthorityCount(label) == 0)
        return SECURITY_MANDATORY_UNTRUSTED_RID;
    return *GetSidSubAuthority(label, *GetSidSubAuthorityCount(label) - 1U);
}

std::optional<TokenUser> userOf(HANDLE process)
{
    HANDLE token = nullptr;
    if (OpenProcessToken(process, TOKEN_QUERY, &token) == FALSE)
        return std::nullopt;
    const UniqueHandle owner(token);
    return readToken(token);
}

const std::optional<TokenUser>& ownUser()
{
    static const std::optional<TokenUser> user = userOf(GetCurrentProcess());
    return user;
}

} // namespace korvane::windows_platform
