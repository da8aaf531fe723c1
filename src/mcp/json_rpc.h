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
    return {{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
            {QStringLiteral("id"), id},
            {QStringLiteral("result"), result}};
}

/// An error response; `id` as for makeResult().
inline QJsonObject makeError(const QJsonValue& id, int code, const QString& message)
{
    const QJsonObject error{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}};
    return {{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
            {QStringLiteral("id"), id},
            {QStringLiteral("error"), error}};
}

} // namespace korvane
