// The tool registry, and the dispatcher that turns a request into a response.
#include "mcp/mcp_server.h"

#include "base/identity.h"
#include "mcp/json_rpc.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <exception>
#include <utility>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QJsonObject toolResult(const QString& text, bool isError)
{
    const QJsonObject content{{u"type"_s, u"text"_s}, {u"text"_s, text}};
    return {{u"content"_s, QJsonArray{content}}, {u"isError"_s, isError}};
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
    const QJsonValue id = request.value("id"_L1);
    const QString method = request.value("method"_L1).toString();
    const QJsonObject params = request.value("params"_L1).toObject();
    const bool isNotification = id.isUndefined() || id.isNull();

    if (method == "initialize"_L1)
        return makeResult(id, onInitialize(params));
    if (method == "notifications/initialized"_L1)
        return {};
    if (method == "tools/list"_L1)
        return makeResult(id, onToolsList());
    if (method == "tools/call"_L1)
        return makeResult(id, onToolsCall(params, progress));
    if (method == "ping"_L1)
        return makeResult(id, QJsonObject());
    if (isNotification)
        return {};
    return makeError(id, methodNotFoundCode, u"Method not found: %1"_s.arg(method));
}

QJsonObject McpServer::onInitialize(const QJsonObject& /*params*/)
{
    const QJsonObject serverInfo{{u"name"_s, identity::serverName},
                                 {u"version"_s, identity::version}};
    return {{u"protocolVersion"_s, u"2024-11-05"_s},
            {u"capabilities"_s, QJsonObject{{u"tools"_s, QJsonObject()}}},
            {u"serverInfo"_s, serverInfo}};
}

QJsonObject McpServer::onToolsList()
{
    QJsonArray tools;
    for (const auto& [name, tool] : m_tools) {
        tools.append(QJsonObject{{u"name"_s, name},
                                 {u"description"_s, tool.description},
                                 {u"inputSchema"_s, tool.inputSchema}});
    }
    return {{u"tools"_s, tools}};
}

QJsonObject McpServer::onToolsCall(const QJsonObject& params, const ProgressCallback& progress)
{
    const QString name = params.value("name"_L1).toString();
    const QJsonObject arguments = params.value("arguments"_L1).toObject();
    const auto tool = m_tools.find(name);
    if (tool == m_tools.end())
        return toolResult(u"Unknown tool: %1"_s.arg(name), true);

    try {
        const QJsonObject result = tool->second.handler(arguments, progress);
        return toolResult(QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Indented)),
                          false);
    } catch (const std::exception& error) {
        const QString message = QString::fromUtf8(error.what());
        return toolResult(u"Tool '%1' failed: %2"_s.arg(name, message), true);
    }
}

} // namespace korvane
