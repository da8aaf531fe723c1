// The two shapes of a JSON-RPC 2.0 response.
#pragma once

#include <QJsonObject>
#include <QString>

namespace korvane {

/// A line that is not JSON, or not an object.
inline constexpr int parseErrorCode = -32700;
/// A method this server does not have.
inline constexpr int methodNotFoundCode = -32601;

/// A success response. An undefined `id` leaves the member out; a null one is written.
inline QJsonObject makeResult(const QJsonValue& id, const QJsonValue& result)
{
    using namespace Qt::StringLiterals;
    return {{u"jsonrpc"_s, u"2.0"_s}, {u"id"_s, id}, {u"result"_s, result}};
}

/// An error response; `id` as for makeResult().
inline QJsonObject makeError(const QJsonValue& id, int code, const QString& message)
{
    using namespace Qt::StringLiterals;
    const QJsonObject error{{u"code"_s, code}, {u"message"_s, message}};
    return {{u"jsonrpc"_s, u"2.0"_s}, {u"id"_s, id}, {u"error"_s, error}};
}

} // namespace korvane
