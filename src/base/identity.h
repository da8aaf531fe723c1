// The fixed texts by which the program names itself.
#pragma once

#include <QLatin1StringView>

namespace korvane::identity {

/// Application name, and the organization name beside it.
inline constexpr QLatin1StringView applicationName{"Korvane"};

/// Application version; also what the MCP handshake reports.
inline constexpr QLatin1StringView version{"0.3.0"};

/// The maker's reverse-DNS organization domain.
inline constexpr QLatin1StringView organizationDomain{"com.korvane"};

/// Name of the server in the MCP handshake.
inline constexpr QLatin1StringView serverName{"kor-vane"};

/// Framework version that get_app_info reports; a fixed text, not the version loaded at run time.
inline constexpr QLatin1StringView qtVersion{"6.8.3"};

} // namespace korvane::identity
