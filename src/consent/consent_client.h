// Asking the user, through the desktop program, before anything on the machine is changed.
#pragma once

#include "consent/protocol.h"

namespace korvane::consent {

/// Asks the desktop program over the local socket "korvane-consent-v1", one connection a request,
/// and waits for the user. Never throws; all trouble is a refusal with a message. Blocks the
/// calling thread, without running its event loop, for at most 3 s to connect, 3 s to send, and
/// 130 s for each piece of the answer. Main thread only.
Result requestConsent(const Request& request);

} // namespace korvane::consent
