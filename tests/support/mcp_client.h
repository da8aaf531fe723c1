// Calls tools the way a client sees them: through McpServer::handleRequest.
#pragma once

#include "mcp/mcp_server.h"
#include "support/json.h"
#include "tools/catalog.h"

#include <QJsonArray>

namespace korvane::test {

using namespace Qt::StringLiterals;

/// The values of some members of an object, with `mark` between them.
inline QString values(const QJsonValue& object, const QString& names, QChar mark = u'|')
{
    QStringList texts;
    for (const QString& name : names.split(u' '))
        texts += object[name].toVariant().toString();
    return texts.join(mark);
}

/// What came back from one tool call.
struct ToolReply
{
    bool isError = false;
    QString text;

    /// The result object that a successful call's text holds.
    QJsonObject json() const { return QJsonDocument::fromJson(text.toUtf8()).object(); }

    /// The records that it has under `key`, each the values of `names` with `mark` between them.
    QStringList rows(const QString& key, const char* names, QChar mark = u'|') const
    {
        QStringList rows;
        for (const QJsonValue record : json()[key].toArray())
            rows += values(record, QString::fromLatin1(names), mark);
        return rows;
    }
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
        QJsonObject message = json(u"{`id`:1,`method`:`tools/call`}"_s);
        message.insert(u"params"_s, QJsonObject{{u"name"_s, tool}, {u"arguments"_s, arguments}});
        const QJsonValue result = request(message, progress)[u"result"_s];
        return {result[u"isError"_s].toBool(), result[u"content"_s][0][u"text"_s].toString()};
    }

    /// The connections of a port as one text each, sorted; the error alone where that is the answer.
    QStringList rowsOnPort(quint16 port)
    {
        const ToolReply reply = call(u"find_process_by_port"_s, {{u"port"_s, port}});
        QStringList rows = reply.rows(
            u"connections"_s, "protocol ip_version local remote state pid process_name", u' ');
        rows.sort();
        return reply.isError ? QStringList{reply.text} : rows;
    }

private:
    McpServer m_server;
};

} // namespace korvane::test
