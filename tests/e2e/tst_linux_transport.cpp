// The built Linux program where something it waits for does not come: on standard streams that do
// not block, on files that nobody serves.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int patienceMs = 120'000;

QByteArray pingWithId(const QByteArray& id)
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

/// The directory `path` as a mount in a namespace of this process's, whose server takes no request.
class DeadMount
{
public:
    explicit DeadMount(const QByteArray& path)
        : m_path(path), m_device(::open("/dev/fuse", O_RDWR | O_CLOEXEC))
    {
        const QByteArray options =
            "fd=" + QByteArray::number(m_device) + ",rootmode=40000,user_id=0,group_id=0";
        m_isMounted = m_device >= 0 && ::unshare(CLONE_NEWNS) == 0 &&
                      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      ::mount("fuse", path.constData(), "fuse", 0, options.constData()) == 0;
    }
    ~DeadMount()
    {
        if (m_isMounted)
            ::umount2(m_path.constData(), MNT_DETACH);
        ::close(m_device);
    }
    Q_DISABLE_COPY_MOVE(DeadMount)

    bool isMounted() const { return m_isMounted; }

private:
    QByteArray m_path;
    int m_device;
    bool m_isMounted = false;
};

} // namespace

class LinuxTransportTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_directory;
    QProcess m_server;

    QByteArray dead() const { return QFile::encodeName(m_directory.filePath(u"dead"_s)); }

    void start(const QString& home)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, home);
        m_server.setProcessEnvironment(environment);
        m_server.start(qEnvironmentVariable("KORVANE_MCP"), QStringList());
    }

    bool endsWith(int code)
    {
        m_server.closeWriteChannel();
        return m_server.waitForFinished(patienceMs) &&
               m_server.exitStatus() == QProcess::NormalExit && m_server.exitCode() == code;
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDir(m_directory.path()).mkdir(u"dead"_s)); }

    void cleanup()
    {
        m_server.setChildProcessModifier({});
        m_server.kill();
        m_server.waitForFinished();
    }

    void anInputThatIsClosed()
    {
        m_server.setChildProcessModifier([] { ::close(STDIN_FILENO); });
        start(m_directory.path());
        QVERIFY(endsWith(0));
    }

    void streamsThatDoNotBlock()
    {
        m_server.setChildProcessModifier([] {
            for (const int stream : {STDIN_FILENO, STDOUT_FILENO})
                ::fcntl(stream, F_SETFL, ::fcntl(stream, F_GETFL) | O_NONBLOCK);
        });
        start(m_directory.path());
        QVERIFY(!m_server.waitForFinished(300)); // at a loss for something to read
        const QByteArray size(8 << 20, 'x');     // many times what a pipe holds
        m_server.write(pingWithId(size) + pingWithId("last"));
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
        const QByteArray verification =
            call("verify_signatures", R"({"paths":[")" + dead() + R"(/program"]})");
        QTest::newRow("settings that are a pipe")
            << m_directory.path() << call("list_processes") << QByteArray("signature_summary");
        QTest::newRow("a home on a dead mount")
            << QString::fromUtf8(dead()) << call("list_processes") << QByteArray("total");
        QTest::newRow("a home without programs of its own")
            << QString::fromUtf8(dead()) << call("list_uninstall_entries") << QByteArray("total");
        QTest::newRow("a home that the log could be set up in")
            << QString::fromUtf8(dead()) << call("list_startup_items") << QByteArray("isError");
        QTest::newRow("a file on a dead mount")
            << u"/nonexistent"_s << verification << QByteArray("未知");
    }

    void filesThatNobodyServes()
    {
        QFETCH(QString, home);
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, answer);
        const DeadMount mount(dead());
        if (!mount.isMounted())
            QSKIP("this machine does not let the test mount");
        start(home);
        m_server.write(request);
        QVERIFY(endsWith(0));
        const QByteArray answers = m_server.readAllStandardOutput();
        QVERIFY2(answers.contains(answer), answers.left(500).constData());
    }

    void stuckSearchesEndWithTheirInput_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::newRow("search") << call("find_large_files", R"({"root_path":")" + dead() + R"("})");
        QTest::newRow("verification") << call("verify_signatures", R"({"paths":["/x"]})");
    }

    void stuckSearchesEndWithTheirInput()
    {
        QFETCH(QByteArray, request);
        const DeadMount mount(dead());
        if (!mount.isMounted())
            QSKIP("this machine does not let the test mount");
        start(QString::fromUtf8(dead()));
        m_server.write(request);
        QVERIFY(!m_server.waitForFinished(70'000)); // as long as somebody may wait for it
        QVERIFY(endsWith(EXIT_FAILURE));
    }
};

QTEST_GUILESS_MAIN(LinuxTransportTest)
#include "tst_linux_transport.moc"
