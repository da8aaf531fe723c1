// One exchange with the desktop program, with its limits as parameters for the tests.
#pragma once

#include "consent/consent_client.h"

#include <chrono>

namespace korvane::consent {

/// How long each step of an exchange may take, and where it goes.
struct ExchangeLimits
{
    QString serverName = channelName;
    std::chrono::milliseconds connecting{3000};
    std::chrono::milliseconds sending{3000};
    std::chrono::milliseconds answering{130'000}; ///< For each wait: begins anew with each piece.
};

/// requestConsent() under other limits.
Result exchange(const Request& request, const ExchangeLimits& limits);

} // namespace korvane::consent
