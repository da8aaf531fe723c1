// Tests of the request dispatcher with tools of the suite's own, of what is published of the real
// ones, and of get_app_info.
#include "support/mcp_client.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTest>

#include <stdexcept>

using namespace korvane;
using namespace Qt::StringLiterals;

class McpServerTest : public QObject
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
        m_server.registerTool(u"echo"_s, {}, {}, throwing("the latest counts"));
        m_server.registerTool(u"echo"_s, {}, {}, echo);
        m_server.registerTool(u"查"_s, {}, {}, throwing("磁盘 “C:” 失败"));
        m_server.registerTool(u"mute"_s, {}, {}, throwing(""));
        m_server.registerTool(u"%2%1"_s, {}, {}, throwing("%1 of %2"));
        m_server.registerTool(u"hollow"_s, {}, {}, ToolHandler());
        QFETCH(QByteArray, response);
        QCOMPARE(test::text(m_server.handleRequest(json(QTest::currentDataTag()), {})),
                 test::text(json(response)));
    }

    void publishedTools()
    {
        test::Client client;
        const QJsonObject response = client.request({{u"method"_s, u"tools/list"_s}});
        QJsonObject byName; // The list has an order of its own.
        const QJsonArray listed = response["result"_L1]["tools"_L1].toArray();
        for (const QJsonValue tool : listed)
            byName.insert(tool["name"_L1].toString(), tool);
        QCOMPARE(listed.size(), 21);
        const QByteArray names = QJsonDocument(byName).toJson(QJsonDocument::Compact);
        QVERIFY(
            test::isAgreedOn(QString::fromUtf8(names),
                             "d8c19357c4b56f6cb968909ef2d745bbb0e0755f926e0b8de6f93fe005cf77cd"));
    }

    void appInfo()
    {
        QCoreApplication::setOrganizationName(u"Maker"_s);
        QCoreApplication::setApplicationName(u"Product"_s);
        QJsonObject info = test::Client().call(u"get_app_info"_s, {{u"name"_s, u"x"_s}}).json();
        const QString dataDir = info.take("data_dir"_L1).toString();
        QVERIFY(dataDir.endsWith(u"/Maker/Product"_s));
        QCOMPARE(dataDir, QStandardPaths::writableLocation(QStandardPaths::AppDataLocation));
        QCOMPARE(info.take("platform"_L1).toString(), QSysInfo::prettyProductName());
        QCOMPARE(info.take("kernel_version"_L1).toString(), QSysInfo::kernelVersion());
        QCOMPARE(info.take("executable"_L1).toString(), QCoreApplication::applicationFilePath());
        QCOMPARE(test::text(info),
                 u"{`description`:`Korvane 系统医生 — 进程/启动项/网络/卸载/大文件 "
                 "五合一诊断工具`,`name`:`Korvane`,`organization`:`com.korvane`,"
                 "`qt_version`:`6.8.3`,`version`:`0.3.0`}"_s);
    }
};

QTEST_GUILESS_MAIN(McpServerTest)
#include "tst_mcp_server.moc"
