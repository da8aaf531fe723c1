// Asking the user, through the desktop program, before anything on the machine is changed.
#pragma once

#include <QString>

namespace korvane::consent {

/// The question put to the user. Sent as it is.
struct Request
{
    QString action;  ///< Machine-readable name of the write: the tool's name.
    QString title;   ///< Short title of the dialog.
    QString summary; ///< One sentence that names the target.
    QString detail;  ///< Further lines, separated by line feeds.
    QString reason;  ///< The AI client's justification.
};

/// The answer. Whatever is no clear yes is a no.
struct Result
{
    bool granted = false;
    QString message; ///< The desktop program's text, or why there is no answer; may be empty.
};

/// Asks the desktop program over the local socket "korvane-consent-v1", one connection a request,
/// and waits for the user. Never throws; all trouble is a refusal with a message. Blocks the
/// calling thread, without running its event loop, for at most 3 s to connect, 3 s to send, and
/// 130 s for each piece of the answer. Main thread only.
Result requestConsent(const Request& request);

} // namespace korvane::consent
