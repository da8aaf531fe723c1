// The catalog of the server's tools.
#pragma once

#include "mcp/mcp_server.h"

#include <QList>

namespace korvane {

/// What the catalog says of one tool.
struct ToolDefinition
{
    QString name;
    QString description; ///< For the AI client; steers when to call and what to pass.
    QJsonObject inputSchema;
    ToolHandler handler;
};

/// Every tool of the system, in registration order.
QList<ToolDefinition> toolCatalog();

/// Registers every tool. Called once, before the transport starts.
void registerKorvaneTools(McpServer& server);

} // namespace korvane
