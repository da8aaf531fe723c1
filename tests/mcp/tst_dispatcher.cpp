// Tests of the request dispatcher and the tool registry, with tools of the suite's own.
#include "mcp/mcp_server.h"
#include "support/json.h"

#include <QJsonArray>
#include <QTest>

#include <stdexcept>

using namespace korvane;
using namespace Qt::StringLiterals;

class DispatcherTest : public QObject
{
    Q_OBJECT

    McpServer m_server;

    static QJsonObject json(const QByteArray& text) { return test::json(QString::fromUtf8(text)); }
    static QJsonObject echo(const QJsonObject& args, const ProgressCallback&) { return args; }
    static ToolHandler throwing(const char* what)
    {
        return [=](const auto&, const auto&) -> QJsonObject { throw std::runtime_error(what); };
    }

private Q_SLOTS:
    void answers_data()
    {
        QTest::addColumn<QByteArray>("response");
        const auto row = [](const QByteArray& request, const QByteArray& response) {
            QTest::newRow(request.constData()) << response;
        };
        for (const QByteArray id : {"0", "-7", "1.5", "9007199254740993", "`abc`", "``", "true",
                                    "[1,`a`]", "{`a`:1}", "null"})
            row("{`method`:`ping`,`id`:" + id + '}',
                "{`jsonrpc`:`2.0`,`result`:{},`id`:" + id + '}');
        row("{`method`:`ping`}", "{`jsonrpc`:`2.0`,`result`:{}}");
        const QByteArray handshake =
            "`jsonrpc`:`2.0`,`result`:{`protocolVersion`:`2024-11-05`,`capabilities`:{`tools`:{}},"
            "`serverInfo`:{`name`:`kor-vane`,`version`:`0.3.0`}}}";
        row("{`id`:1,`method`:`initialize`,`params`:{`protocolVersion`:`1`}}",
            "{`id`:1," + handshake);
        row("{`method`:`initialize`,`params`:[5]}", '{' + handshake);
        for (const char* silent : {"{`id`:1,`method`:`notifications/initialized`}",
                                   "{`method`:`unknown`}", "{`id`:null,`method`:`unknown`}"})
            row(silent, "{}");
        const QByteArray notFound =
            "{`id`:1,`jsonrpc`:`2.0`,`error`:{`code`:-32601,`message`:`Method not found: ";
        row("{`id`:1,`method`:`Initialize`}", notFound + "Initialize`}}");
        row("{`id`:1,`method`:`%1 %2 ⚠`}", notFound + "%1 %2 ⚠`}}");
        row("{`id`:1,`method`:[`ping`]}", notFound + "`}}");
        row("{`id`:1}", notFound + "`}}");

        const auto call = [&](const QByteArray& params, const QByteArray& isError,
                              const QByteArray& shown) {
            row("{`method`:`tools/call`,`params`:" + params + '}',
                "{`jsonrpc`:`2.0`,`result`:{`isError`:" + isError +
                    ",`content`:[{`type`:`text`,`text`:`" + shown + "`}]}}");
        };
        call("{`name`:`echo`}", "false", "{\\n}\\n");
        call("{`name`:`echo`,`arguments`:[1]}", "false", "{\\n}\\n");
        call("{`name`:`echo`,`arguments`:{`b`:`中`,`a`:1}}", "false",
             "{\\n    \\`a\\`: 1,\\n    \\`b\\`: \\`中\\`\\n}\\n");
        call("{`name`:`查`}", "true", "Tool '查' failed: 磁盘 “C:” 失败");
        call("{`name`:`mute`}", "true", "Tool 'mute' failed: ");
        call("{`name`:`%2%1`}", "true", "Tool '%2%1' failed: %1 of %2");
        call("{`name`:`hollow`}", "true",
             QByteArray("Tool 'hollow' failed: ") + std::bad_function_call().what());
        call("{`name`:`Echo%1`}", "true", "Unknown tool: Echo%1");
        for (const char* nameless : {"{}", "null", "[`echo`]", "{`name`:[`echo`]}"})
            call(nameless, "true", "Unknown tool: ");
    }

    void answers()
    {
        m_server.registerTool(u"echo"_s, {}, {}, echo);
        m_server.registerTool(u"查"_s, {}, {}, throwing("磁盘 “C:” 失败"));
        m_server.registerTool(u"mute"_s, {}, {}, throwing(""));
        m_server.registerTool(u"%2%1"_s, {}, {}, throwing("%1 of %2"));
        m_server.registerTool(u"hollow"_s, {}, {}, ToolHandler());
        QFETCH(QByteArray, response);
        QCOMPARE(test::text(m_server.handleRequest(json(QTest::currentDataTag()), {})),
                 test::text(json(response)));
    }

    void laterRegistrationReplaces()
    {
        McpServer server;
        const QJsonObject list = json("{`method`:`tools/list`}");
        const auto tools = [&] {
            return server.handleRequest(list, {}).value("result"_L1).toObject();
        };
        QCOMPARE(tools(), json("{`tools`:[]}"));
        server.registerTool(u"t"_s, u"old"_s, {{u"old"_s, 1}}, throwing("old"));
        server.registerTool(u"t"_s, u"new"_s, {{u"a"_s, 1}}, echo);
        QCOMPARE(tools(),
                 json("{`tools`:[{`name`:`t`,`description`:`new`,`inputSchema`:{`a`:1}}]}"));
        const QJsonObject call = json("{`method`:`tools/call`,`params`:{`name`:`t`}}");
        QVERIFY(test::text(server.handleRequest(call, {})).contains(u"false"_s));
    }

    void progressReachesTheTool()
    {
        QJsonArray seen;
        const auto slow = [&](const QJsonObject& args, const ProgressCallback& progress) {
            seen.append(bool(progress));
            if (progress)
                progress(args);
            return args;
        };
        m_server.registerTool(u"slow"_s, {}, {}, slow);
        const QJsonObject call =
            json("{`method`:`tools/call`,`params`:{`name`:`slow`,`arguments`:{`n`:3}}}");
        m_server.handleRequest(call, [&](const QJsonObject& report) { seen.append(report); });
        m_server.handleRequest(call, {});
        QCOMPARE(seen, (QJsonArray{true, json("{`n`:3}"), false}));
    }
};

QTEST_GUILESS_MAIN(DispatcherTest)
#include "tst_dispatcher.moc"
