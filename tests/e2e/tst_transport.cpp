// The program as a child process: what it does with lines of every kind, and how it ends.
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int patienceMs = 120'000;

constexpr auto ping = R"({"jsonrpc":"2.0","id":"p","method":"ping"})";
constexpr auto pong = R"({"id":"p","jsonrpc":"2.0","result":{}})";

/// The server without a back end. Its output goes to `reader`, if given, which closes it unread.
std::unique_ptr<QProcess> startServer(QProcess* reader = nullptr)
{
    auto server = std::make_unique<QProcess>();
    if (reader != nullptr) {
        server->setStandardOutputProcess(reader);
        reader->start(u"true"_s, QStringList());
    }
    server->start(qEnvironmentVariable("KORVANE_MCP_UNSUPPORTED"), QStringList());
    return server;
}

bool endsQuietly(QProcess& server)
{
    return server.waitForFinished(patienceMs) && server.exitStatus() == QProcess::NormalExit &&
           server.exitCode() == 0;
}

/// Everything the server writes for an input that then ends; the exit must be a quiet one.
QByteArrayList answersTo(const QByteArray& input)
{
    const auto server = startServer();
    server->write(input);
    server->closeWriteChannel();
    if (!endsQuietly(*server))
        return {"no quiet end: " + server->errorString().toUtf8()};
    const QByteArray diagnostics = server->readAllStandardError();
    if (!diagnostics.isEmpty())
        return {"on standard error: " + diagnostics};
    QByteArrayList lines = server->readAllStandardOutput().split('\n');
    if (lines.takeLast() != QByteArray())
        return {"the last line is not ended"};
    return lines;
}

QByteArray parseError(const QByteArray& text)
{
    return R"({"error":{"code":-32700,"message":"Parse error: )" + text +
           R"("},"id":null,"jsonrpc":"2.0"})";
}

QByteArray pingWithId(const QByteArray& id)
{
    return R"({"id":)" + id + R"(,"method":"ping"})";
}

} // namespace

class TestTransport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answers_data();
    void answers();
    void survives_data();
    void survives();
    void writesOneAnswerALineAsSoonAsItIsThere();
    void listsTheToolsInOneOrder();
    void endsWhenTheOutputIsClosed();
    void startsAndStopsUnderLoad();
};

void TestTransport::answers_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArrayList>("expected");
    const QByteArray asked(ping);
    const QByteArray answered(pong);

    QTest::newRow("nothing") << QByteArray() << QByteArrayList();
    QTest::newRow("only empty lines") << QByteArray("\n\n\n") << QByteArrayList();
    QTest::newRow("two, in order")
        << asked + '\n' + pingWithId("2") + '\n'
        << QByteArrayList{answered, R"({"id":2,"jsonrpc":"2.0","result":{}})"};
    QTest::newRow("carriage return") << asked + "\r\n" << QByteArrayList{answered};
    QTest::newRow("last line not ended") << asked << QByteArrayList{answered};
    QTest::newRow("notifications") << QByteArray(R"({"method":"notifications/initialized","id":1}
{"method":"notifications/cancelled"}
)") << QByteArrayList();
    QTest::newRow("blanks") << QByteArray("  \n") << QByteArrayList{parseError("illegal value")};
    QTest::newRow("a batch") << "[" + asked + "]\n"
                             << QByteArrayList{parseError("no error occurred")};
    QTest::newRow("null id") << pingWithId("null")
                             << QByteArrayList{R"({"id":null,"jsonrpc":"2.0","result":{}})"};
    QTest::newRow("64-bit id") << pingWithId("9223372036854775807")
                               << QByteArrayList{
                                      R"({"id":9223372036854775807,"jsonrpc":"2.0","result":{}})"};
    QTest::newRow("object id") << pingWithId(R"({"a":[1,true]})")
                               << QByteArrayList{
                                      R"({"id":{"a":[1,true]},"jsonrpc":"2.0","result":{}})"};
    const QByteArray longId = '"' + QByteArray(64 << 20, 'x') + '"';
    QTest::newRow("64 MiB") << pingWithId(longId)
                            << QByteArrayList{R"({"id":)" + longId +
                                              R"(,"jsonrpc":"2.0","result":{}})"};
    const QByteArray brackets = R"("\"\\[,{)" + QByteArray(3 << 20, ',') + '"';
    QTest::newRow("many brackets in a text")
        << pingWithId(brackets)
        << QByteArrayList{R"({"id":)" + brackets + R"(,"jsonrpc":"2.0","result":{}})"};
    QTest::newRow("more values than memory")
        << pingWithId("[" + QByteArray("[0],").repeated(30 << 20) + "0]") + '\n' + asked
        << QByteArrayList{parseError("too large document"), answered};
    QTest::newRow("a line without bounds")
        << pingWithId('"' + QByteArray(160 << 20, 'x') + '"') + '\n' + asked
        << QByteArrayList{parseError("too large document"), answered};
}

void TestTransport::answers()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArrayList, expected);
    const QByteArrayList lines = answersTo(input);
    // Not QCOMPARE: it would print lines of many MiB.
    QVERIFY2(lines == expected, lines.join('\n').left(2000).constData());
}

void TestTransport::survives_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("invalid UTF-8") << QByteArray("{\"id\":\"\xff\xfe\xc3\"}");
    QTest::newRow("NUL bytes") << QByteArray("{\"id\":\0\0,\"method\":\"ping\"}", 26);
    QTest::newRow("only NULs") << QByteArray(1000, '\0');
    QTest::newRow("cut off") << QByteArray(R"({"id":1,"method":"pi)");
    QTest::newRow("deep arrays") << QByteArray(1'000'000, '[');
    QTest::newRow("deep objects") << QByteArray(R"({"a":)").repeated(200'000);
    QTest::newRow("id of legal depth") << pingWithId(QByteArray(1000, '[') + QByteArray(1000, ']'));
    QTest::newRow("number beyond a double") << pingWithId("1e999");
    QTest::newRow("number beyond 64 bits") << pingWithId("123456789012345678901234567890");
    QTest::newRow("lone surrogate") << pingWithId(R"("\ud800")");
    QTest::newRow("many values") << pingWithId("[" + QByteArray("{},").repeated(300'000) + "0]");
    for (const QByteArray method : {"tools/call", "initialize", "tools/list", "ping"}) {
        for (const QByteArray params : {"null", "[]", "7", R"("x")", R"({"name":{}})",
                                        R"({"name":"get_process_command_line","arguments":[1]})",
                                        R"({"name":"get_process_tree","arguments":null})"}) {
            QTest::addRow("%s %s", method.constData(), params.constData())
                << R"({"id":1,"method":")" + method + R"(","params":)" + params + "}";
        }
    }
}

// Whatever the line is: one answer, that is JSON, and the next request is served.
void TestTransport::survives()
{
    QFETCH(QByteArray, line);
    const auto server = startServer();
    server->write(line + '\n' + ping + '\n');
    server->closeWriteChannel();
    QVERIFY(endsQuietly(*server));
    const QByteArrayList lines = server->readAllStandardOutput().split('\n');
    QCOMPARE(lines.size(), 3);
    const QJsonDocument answer = QJsonDocument::fromJson(lines.at(0));
    QVERIFY2(answer.isObject(), lines.at(0).left(500).constData());
    QVERIFY(answer[u"result"_s].isObject() || answer[u"error"_s].isObject());
    QCOMPARE(lines.at(1), pong);
}

void TestTransport::writesOneAnswerALineAsSoonAsItIsThere()
{
    const auto server = startServer();
    for (int i = 0; i < 100; ++i) {
        server->write(QByteArray(ping) + '\n');
        while (!server->canReadLine())
            QVERIFY(server->waitForReadyRead(patienceMs));
        QCOMPARE(server->readAll(), QByteArray(pong) + '\n');
    }
    server->closeWriteChannel();
    QVERIFY(endsQuietly(*server));
}

// Another run's list is the same: clients keep what they made of it.
void TestTransport::listsTheToolsInOneOrder()
{
    const QByteArray request = R"({"id":1,"method":"tools/list"})";
    QCOMPARE(answersTo(request), answersTo(request));
}

void TestTransport::endsWhenTheOutputIsClosed()
{
    QProcess reader;
    const auto server = startServer(&reader);
    QVERIFY(reader.waitForFinished(patienceMs));
    // Standard input stays open: only the failing write tells the server to go.
    server->write((QByteArray(ping) + '\n').repeated(1000));
    QVERIFY(endsQuietly(*server));
    QCOMPARE(server->readAllStandardError(), QByteArray());
}

void TestTransport::startsAndStopsUnderLoad()
{
    bool isNumber = false;
    const int wanted = qEnvironmentVariableIntValue("KORVANE_TEST_CYCLES", &isNumber);
    const int cycles = isNumber ? wanted : 200;
    const QByteArray request = R"({"id":1,"method":"tools/list"})"
                               "\n";
    for (int i = 0; i < cycles; ++i) {
        QProcess reader;
        const auto server = startServer(i % 3 == 1 ? &reader : nullptr);
        server->write(request.repeated(i % 20));
        if (i % 4 == 1)
            server->waitForBytesWritten(patienceMs);
        server->closeWriteChannel();
        QVERIFY2(endsQuietly(*server), server->readAllStandardError().constData());
        QCOMPARE(server->readAllStandardError(), QByteArray());
        reader.waitForFinished(patienceMs);
    }
}

QTEST_GUILESS_MAIN(TestTransport)
#include "tst_transport.moc"
