// The built Linux program where something it waits for does not come: on standard streams that do
// not block, on files that nobody serves.
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int patienceMs = 120'000;

/// Runs a program in a namespace where the directory is a mount whose server takes no request.
const auto withDeadMount =
    u"exec 3<>/dev/fuse && options=fd=3,rootmode=40000,user_id=0,group_id=0 && "
    "mount -i -t fuse -o $options none \"$0\" || exit 77; exec \"$@\""_s;

QByteArray ping(const QByteArray& id)
{
    return R"({"id":")" + id + R"(","method":"ping"})" + '\n';
}

QByteArray pong(const QByteArray& id)
{
    return R"({"id":")" + id + R"(","jsonrpc":"2.0","result":{}})" + '\n';
}

QByteArray call(const QByteArray& tool, const QByteArray& arguments = "{}")
{
    return R"({"id":1,"method":"tools/call","params":{"name":")" + tool + R"(","arguments":)" +
           arguments + "}}\n";
}

} // namespace

class LinuxTransportTest : public QObject
{
    Q_OBJECT

    const QString m_program = qEnvironmentVariable("KORVANE_MCP");
    QTemporaryDir m_directory;
    QString m_dead = m_directory.filePath(u"dead"_s);
    QProcess m_server;

    void startWithDeadMount(const QString& home)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, home);
        m_server.setProcessEnvironment(environment);
        m_server.start(u"unshare"_s, {u"-m"_s, u"sh"_s, u"-c"_s, withDeadMount, m_dead, m_program});
    }

    bool endsWith(int code)
    {
        m_server.closeWriteChannel();
        return m_server.waitForFinished(patienceMs) &&
               m_server.exitStatus() == QProcess::NormalExit && m_server.exitCode() == code;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir().mkdir(m_dead));
        startWithDeadMount({});
        m_mayMount = endsWith(0);
    }

    void cleanup()
    {
        m_server.setChildProcessModifier({});
        m_server.kill();
        m_server.waitForFinished();
    }

    void anInputThatIsClosed()
    {
        m_server.start(u"sh"_s, {u"-c"_s, u"exec \"$0\" <&-"_s, m_program});
        QVERIFY(endsWith(0));
    }

    void streamsThatDoNotBlock()
    {
        m_server.setChildProcessModifier([] {
            for (const int stream : {STDIN_FILENO, STDOUT_FILENO})
                ::fcntl(stream, F_SETFL, ::fcntl(stream, F_GETFL) | O_NONBLOCK);
        });
        m_server.start(m_program, QStringList());
        QVERIFY(!m_server.waitForFinished(300)); // at a loss for something to read
        const QByteArray size(8 << 20, 'x');     // many times what a pipe holds
        m_server.write(ping(size) + ping("last"));
        QVERIFY(endsWith(0));
        QCOMPARE(m_server.readAllStandardOutput().size(), (pong(size) + pong("last")).size());
    }

    void filesThatNobodyServes_data()
    {
        QTest::addColumn<QString>("home");
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("answer");
        const QString settings = m_directory.filePath(u".config/Korvane"_s);
        QVERIFY(QDir().mkpath(settings));
        QCOMPARE(::mkfifo(QFile::encodeName(settings + u"/Korvane.conf"_s).constData(), 0600), 0);
        const QByteArray paths = "{\"paths\":[\"" + m_dead.toUtf8() + "/program\"]}";
        QTest::newRow("settings that are a pipe")
            << m_directory.path() << call("list_processes") << QByteArray("signature_summary");
        QTest::newRow("a home on a dead mount")
            << m_dead << call("list_processes") << QByteArray("total");
        QTest::newRow("a home without programs of its own")
            << m_dead << call("list_uninstall_entries") << QByteArray("total");
        QTest::newRow("a home that the log could be set up in")
            << m_dead << call("list_startup_items") << QByteArray("isError");
        QTest::newRow("a file on a dead mount")
            << u"/nonexistent"_s << call("verify_signatures", paths) << QByteArray("未知");
    }

    void filesThatNobodyServes()
    {
        QFETCH(QString, home);
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, answer);
        if (!m_mayMount)
            QSKIP("this machine does not let the test mount");
        startWithDeadMount(home);
        m_server.write(request);
        QVERIFY(endsWith(0));
        const QByteArray answers = m_server.readAllStandardOutput();
        QVERIFY2(answers.contains(answer), answers.left(500).constData());
    }

    void stuckSearchesEndWithTheirInput_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::newRow("search") << call("find_large_files",
                                        "{\"root_path\":\"" + m_dead.toUtf8() + "\"}");
        QTest::newRow("verification") << call("verify_signatures", "{\"paths\":[\"/x\"]}");
    }

    void stuckSearchesEndWithTheirInput()
    {
        QFETCH(QByteArray, request);
        if (!m_mayMount)
            QSKIP("this machine does not let the test mount");
        startWithDeadMount(m_dead);
        m_server.write(request);
        QVERIFY(!m_server.waitForFinished(70'000)); // as long as somebody may wait for it
        QVERIFY(endsWith(EXIT_FAILURE));
    }

private:
    bool m_mayMount = false;
};

QTEST_GUILESS_MAIN(LinuxTransportTest)
#include "tst_linux_transport.moc"
