// The MCP server: a registry of tools, the dispatcher of requests, and the stdio transport.
#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <cstddef>
#include <functional>
#include <unordered_map>

namespace korvane {

class SharedProcessor;
class StandardStreams;

/// Takes one progress report. May be empty: test it before each call.
using ProgressCallback = std::function<void(const QJsonObject&)>;

/// A tool: from the call's "arguments" (never validated against the schema) and a progress
/// callback to the result object. Runs on the main thread, and may block it. Failure is a thrown
/// std::runtime_error whose text is the UTF-8 of the user-facing message.
using ToolHandler =
    std::function<QJsonObject(const QJsonObject& arguments, const ProgressCallback& progress)>;

/// Answers MCP requests from its tool registry. Lives on the main thread.
class McpServer : public QObject
{
    Q_OBJECT

public:
    /// One registered tool; its name is the key of the registry.
    struct ToolEntry
    {
        QString description;     ///< For the AI client.
        QJsonObject inputSchema; ///< Sent unchanged in "tools/list".
        ToolHandler handler;
    };

    McpServer() = default;

    /// Puts a tool into the registry, in place of any earlier one of that name. Call before
    /// runStdio().
    void registerTool(const QString& name, const QString& description,
                      const QJsonObject& inputSchema, ToolHandler handler);

    /// Serves the input of `streams`, a JSON-RPC message a line, until it ends or the output can no
    /// longer be written. Uses `processor` for the hand-over between its two threads. Runs the
    /// application's event loop on the calling (main) thread, and a
    /// reader thread beside it. Returns the exit code. Call once. Does not return, but ends the
    /// process as failed, when a search or verification is stuck after the input has ended.
    int runStdio(StandardStreams& streams, SharedProcessor& processor);

    /// The response to one JSON-RPC request, or an empty object when there is none to write.
    /// Tools get `progress` unchanged. Main thread only.
    QJsonObject handleRequest(const QJsonObject& request, const ProgressCallback& progress);

private:
    QJsonObject onInitialize(const QJsonObject& params);
    QJsonObject onToolsList();
    QJsonObject onToolsCall(const QJsonObject& params, const ProgressCallback& progress);

    /// FNV-1a. The framework's own hash has another seed in each run, which would list the tools in
    /// another order each time: clients keep what they made of a list that does not change.
    struct NameHash
    {
        std::size_t operator()(const QString& name) const noexcept;
    };

    std::unordered_map<QString, ToolEntry, NameHash> m_tools;
};

} // namespace korvane
