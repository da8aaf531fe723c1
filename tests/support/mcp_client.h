// Calls tools the way a client sees them: through McpServer::handleRequest.
#pragma once

#include "mcp/mcp_server.h"
#include "tools/catalog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace korvane::test {

/// What came back from one tool call.
struct ToolReply
{
    bool isError = false;
    QString text;

    /// The result object that a successful call's text holds.
    QJsonObject json() const { return QJsonDocument::fromJson(text.toUtf8()).object(); }
};

/// A server with every tool registered.
class Client
{
public:
    Client() { registerKorvaneTools(m_server); }

    QJsonObject request(const QJsonObject& message, const ProgressCallback& progress = {})
    {
        return m_server.handleRequest(message, progress);
    }

    ToolReply call(const QString& tool, const QJsonObject& arguments = {},
                   const ProgressCallback& progress = {})
    {
        const QJsonObject params{{QStringLiteral("name"), tool},
                                 {QStringLiteral("arguments"), arguments}};
        const QJsonObject response =
            request({{QStringLiteral("id"), 1},
                     {QStringLiteral("method"), QStringLiteral("tools/call")},
                     {QStringLiteral("params"), params}},
                    progress);
        const QJsonObject result = response.value(QStringLiteral("result")).toObject();
        const QJsonArray content = result.value(QStringLiteral("content")).toArray();
        return {result.value(QStringLiteral("isError")).toBool(),
                content.at(0).toObject().value(QStringLiteral("text")).toString()};
    }

private:
    McpServer m_server;
};

} // namespace korvane::test
