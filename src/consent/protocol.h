// The wire form of the consent channel, both ways: a line of JSON each.
#pragma once

#include <QByteArray>
#include <QLatin1StringView>
#include <QString>

#include <optional>

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

/// The name of the local socket.
inline constexpr QLatin1StringView channelName{"korvane-consent-v1"};

/// The request as one compact JSON object of five strings, without the line feed that ends it.
QByteArray encodeRequest(const Request& request);

/// The request in a line, without its line feed. None, with what is wrong (Chinese, for the reply) in
/// `error` (may be null), unless it is an object that has all five members, each a string. Further
/// members are ignored.
std::optional<Request> decodeRequest(const QByteArray& line, QString* error);

/// The answer as one compact JSON object, without the line feed that ends it.
QByteArray encodeResult(const Result& result);

/// The answer in a line, without its line feed. Damage is a refusal with an empty message.
Result decodeResult(const QByteArray& line);

} // namespace korvane::consent
