// The tool registry, and the dispatcher that turns a request into a response.
#include "mcp/mcp_server.h"

#include "base/identity.h"
#include "mcp/json_rpc.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <exception>
#include <utility>

namespace korvane {

namespace {

QJsonObject toolResult(const QString& text, bool isError)
{
    const QJsonObject content{{QStringLiteral("type"), QStringLiteral("text")},
                              {QStringLiteral("text"), text}};
    return {{QStringLiteral("content"), QJsonArray{content}}, {QStringLiteral("isError"), isError}};
}

} // namespace

void McpServer::registerTool(const QString& name, const QString& description,
                             const QJsonObject& inputSchema, ToolHandler handler)
{
    m_tools.insert_or_assign(name, ToolEntry{description, inputSchema, std::move(handler)});
}

std::size_t McpServer::NameHash::operator()(const QString& name) const noexcept
{
    quint64 hash = 0xcbf29ce484222325;
    for (const QChar character : name)
        hash = (hash ^ character.unicode()) * 0x100000001b3;
    return static_cast<std::size_t>(hash);
}

QJsonObject McpServer::handleRequest(const QJsonObject& request, const ProgressCallback& progress)
{
    const QJsonValue id = request.value(QLatin1String("id"));
    const QString method = request.value(QLatin1String("method")).toString();
    const QJsonObject params = request.value(QLatin1String("params")).toObject();
    const bool isNotification = id.isUndefined() || id.isNull();

    if (method == QLatin1String("initialize"))
        return makeResult(id, onInitialize(params));
    if (method == QLatin1String("notifications/initialized"))
        return {};
    if (method == QLatin1String("tools/list"))
        return makeResult(id, onToolsList());
    if (method == QLatin1String("tools/call"))
        return makeResult(id, onToolsCall(params, progress));
    if (method == QLatin1String("ping"))
        return makeResult(id, QJsonObject());
    if (isNotification)
        return {};
    return makeError(id, methodNotFoundCode, QStringLiteral("Method not found: %1").arg(method));
}

QJsonObject McpServer::onInitialize(const QJsonObject& /*params*/)
{
    const QJsonObject serverInfo{{QStringLiteral("name"), identity::serverName},
                                 {QStringLiteral("version"), identity::version}};
    return {{QStringLiteral("protocolVersion"), QStringLiteral("2024-11-05")},
            {QStringLiteral("capabilities"), QJsonObject{{QStringLiteral("tools"), QJsonObject()}}},
            {QStringLiteral("serverInfo"), serverInfo}};
}

QJsonObject McpServer::onToolsList()
{
    QJsonArray tools;
    for (const auto& [name, tool] : m_tools) {
        tools.append(QJsonObject{{QStringLiteral("name"), name},
                                 {QStringLiteral("description"), tool.description},
                                 {QStringLiteral("inputSchema"), tool.inputSchema}});
    }
    return {{QStringLiteral("tools"), tools}};
}

QJsonObject McpServer::onToolsCall(const QJsonObject& params, const ProgressCallback& progress)
{
    const QString name = params.value(QLatin1String("name")).toString();
    const QJsonObject arguments = params.value(QLatin1String("arguments")).toObject();
    const auto tool = m_tools.find(name);
    if (tool == m_tools.end())
        return toolResult(QStringLiteral("Unknown tool: %1").arg(name), true);

    try {
        const QJsonObject result = tool->second.handler(arguments, progress);
        return toolResult(QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Indented)),
                          false);
    } catch (const std::exception& error) {
        const QString message = QString::fromUtf8(error.what());
        return toolResult(QStringLiteral("Tool '%1' failed: %2").arg(name, message), true);
    }
}

} // namespace korvane
