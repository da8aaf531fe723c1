// The program as a child process: what it does with lines of every kind, and how it ends.
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int patienceMs = 120'000;

/// A request, and the answer to it.
QByteArray ping(const QByteArray& id = "\"p\"")
{
    return R"({"id":)" + id + R"(,"method":"ping"})" + '\n';
}
QByteArray pong(const QByteArray& id = "\"p\"")
{
    return R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":{}})" + '\n';
}

QByteArray parseError(const QByteArray& text)
{
    return R"({"error":{"code":-32700,"message":"Parse error: )" + text +
           R"("},"id":null,"jsonrpc":"2.0"})" + '\n';
}

/// The server without a back end. Its output goes to `reader`, if given, which closes it unread.
std::unique_ptr<QProcess> startServer(QProcess* reader = nullptr)
{
    auto server = std::make_unique<QProcess>();
    if (reader != nullptr) {
        server->setStandardOutputProcess(reader);
        const bool isPosix = !QStandardPaths::findExecutable(u"true"_s).isEmpty();
        reader->startCommand(isPosix ? u"true"_s : u"cmd /c exit"_s);
    }
    server->start(qEnvironmentVariable("KORVANE_MCP_UNSUPPORTED"), QStringList());
    return server;
}

/// Whether the server ends by itself, as after a success, and has said nothing of itself.
bool endsQuietly(QProcess& server)
{
    return server.waitForFinished(patienceMs) && server.exitStatus() == QProcess::NormalExit &&
           server.exitCode() == 0 && server.readAllStandardError().isEmpty();
}

/// Everything the server writes for an input that then ends; the exit must be a quiet one.
QByteArray answersTo(const QByteArray& input)
{
    const auto server = startServer();
    server->write(input);
    server->closeWriteChannel();
    return endsQuietly(*server) ? server->readAllStandardOutput() : "no quiet end";
}

} // namespace

class TestTransport : public QObject
{
    Q_OBJECT

    static void check(const QByteArray& input, const QByteArray& expected)
    {
        const QByteArray lines = answersTo(input);
        // Not QCOMPARE: it would print lines of many MiB.
        QVERIFY2(lines == expected, (input.left(200) + lines.left(2000)).constData());
    }

private Q_SLOTS:
    void answers()
    {
        check("", "");
        check("\n\n\n", "");
        check(ping() + ping("2"), pong() + pong("2"));
        check(ping().replace('\n', "\r\n"), pong());
        check(ping().chopped(1), pong());
        check("{\"method\":\"notifications/initialized\",\"id\":1}\n"
              "{\"method\":\"notifications/cancelled\"}\n",
              "");
        check("  \n", parseError("illegal value"));
        check("[" + ping().chopped(1) + "]\n", parseError("no error occurred"));
        for (const QByteArray id : {"null", "9223372036854775807", "{\"a\":[1,true]}"})
            check(ping(id), pong(id));
    }

    void answersLongLines()
    {
        const QByteArray longId = '"' + QByteArray(64 << 20, 'x') + '"';
        check(ping(longId), pong(longId));
        const QByteArray brackets = "\"\\\"\\\\[,{" + QByteArray(3 << 20, ',') + '"';
        check(ping(brackets), pong(brackets));
        // More values than memory, and a line without bounds.
        for (const QByteArray& id : {"[" + QByteArray("[0],").repeated(30 << 20) + "0]",
                                     '"' + QByteArray(160 << 20, 'x') + '"'})
            check(ping(id) + ping(), parseError("too large document") + pong());
    }

    // Whatever the line is: one answer, that is JSON, and the next request is served.
    void survives()
    {
        QByteArrayList hostile{
            "{\"id\":\"\xff\xfe\xc3\"}\n",
            QByteArray("{\"id\":\0\0,\"method\":\"ping\"}\n", 26),
            QByteArray(1000, '\0') + '\n',
            ping().chopped(4) + '\n',
            QByteArray(1'000'000, '[') + '\n',
            QByteArray("{\"a\":").repeated(200'000) + '\n',
            ping(QByteArray(1000, '[') + QByteArray(1000, ']')), // of legal depth
            ping("1e999"),
            ping("123456789012345678901234567890"),
            ping("\"\\ud800\""),
            ping("[" + QByteArray("{},").repeated(300'000) + "0]")};
        for (const QByteArray method : {"tools/call", "initialize", "tools/list", "ping"}) {
            for (const QByteArray params :
                 {"null", "[]", "7", "\"x\"", "{\"name\":{}}",
                  "{\"name\":\"get_process_command_line\",\"arguments\":[1]}",
                  "{\"name\":\"get_app_info\",\"arguments\":null}"})
                hostile.append("{\"id\":1,\"method\":\"" + method + "\",\"params\":" + params +
                               "}\n");
        }
        for (const QByteArray& line : hostile) {
            const QByteArrayList lines = answersTo(line + ping()).split('\n');
            const QJsonDocument answer = QJsonDocument::fromJson(lines.at(0));
            const bool isAnswer = answer[u"result"_s].isObject() || answer[u"error"_s].isObject();
            QVERIFY2(isAnswer, (line.left(200) + lines.at(0).left(500)).constData());
            QCOMPARE(lines.mid(1).join('\n'), pong());
        }
    }

    void writesOneAnswerALineAsSoonAsItIsThere()
    {
        const auto server = startServer();
        for (int i = 0; i < 100; ++i) {
            server->write(ping().first(1)); // by itself, so that it may be read by itself
            QVERIFY(server->waitForBytesWritten(patienceMs));
            server->write(ping().sliced(1));
            while (!server->canReadLine())
                QVERIFY(server->waitForReadyRead(patienceMs));
            QCOMPARE(server->readAll(), pong());
        }
        server->closeWriteChannel();
        QVERIFY(endsQuietly(*server));
    }

    // Another run's list is the same: clients keep what they made of it.
    void listsTheToolsInOneOrder()
    {
        const QByteArray request = "{\"id\":1,\"method\":\"tools/list\"}";
        QCOMPARE(answersTo(request), answersTo(request));
    }

    void endsWhenTheOutputIsClosed()
    {
        QProcess reader;
        const auto server = startServer(&reader);
        QVERIFY(reader.waitForFinished(patienceMs));
        // Standard input stays open: only the failing write tells the server to go.
        server->write(ping().repeated(1000));
        QVERIFY(endsQuietly(*server));
    }

    void startsAndStopsUnderLoad()
    {
        bool isNumber = false;
        const int wanted = qEnvironmentVariableIntValue("KORVANE_TEST_CYCLES", &isNumber);
        const int cycles = isNumber ? wanted : 200;
        const QByteArray request = "{\"id\":1,\"method\":\"tools/list\"}\n";
        for (int i = 0; i < cycles; ++i) {
            QProcess reader;
            const auto server = startServer(i % 3 == 1 ? &reader : nullptr);
            server->write(request.repeated(i % 20));
            if (i % 4 == 1)
                server->waitForBytesWritten(patienceMs);
            server->closeWriteChannel();
            QVERIFY(endsQuietly(*server));
            reader.waitForFinished(patienceMs);
        }
    }
};

QTEST_GUILESS_MAIN(TestTransport)
#include "tst_transport.moc"
