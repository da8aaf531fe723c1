// Attacks on the desk with real sockets, processes, users and terminals.
#include "consent/consent_exchange.h"
#include "desk/asking_client.h"
#include "desk/desk.h"
#include "platform/processes.h"
#include "platform/session.h"
#include "support/child_process.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QTextStream>

#include <csignal>
#include <deque>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::desk;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using test::AskingClient;

namespace {

constexpr uid_t stranger = 1234;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr qint64 allowedGrowthKib = 1 << 20; // They keep what was freed.
#else
constexpr qint64 allowedGrowthKib = 2048;
#endif

consent::Request request(const QString& summary)
{
    return {u"kill_process"_s, {}, summary, {}, {}};
}

qint64 residentKib()
{
    QFile status(u"/proc/self/status"_s);
    const bool isOpen = status.open(QFile::ReadOnly);
    const QByteArray rest = isOpen ? status.readAll() : QByteArray();
    return rest.mid(rest.indexOf("VmRSS:") + 6).trimmed().split(' ').first().toLongLong();
}

/// The real program at a terminal of the test's own.
class DeskAtTerminal
{
public:
    DeskAtTerminal()
    {
        const QByteArray program =
            QFile::encodeName(QCoreApplication::applicationDirPath() + u"/../src/korvane-desk"_s);
        m_pid = ::forkpty(&m_terminal, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            ::execl(program.constData(), "korvane-desk", "--terminal", nullptr);
            ::_exit(1);
        }
        ::fcntl(m_terminal, F_SETFL, O_NONBLOCK);
    }
    ~DeskAtTerminal()
    {
        ::close(m_terminal);
        if (m_pid > 0)
            ::kill(m_pid, SIGKILL), ::waitpid(m_pid, nullptr, 0);
    }
    Q_DISABLE_COPY_MOVE(DeskAtTerminal)

    void type(const char* text) const { QVERIFY(::write(m_terminal, text, qstrlen(text)) > 0); }

    /// Whether that appears on the screen, after what was waited for before.
    bool shows(const QString& text)
    {
        const bool isThere = QTest::qWaitFor(
            [&] {
                QByteArray buffer(4096, 0);
                const ssize_t count = ::read(m_terminal, buffer.data(), size_t(buffer.size()));
                m_screen += buffer.first(std::max<ssize_t>(count, 0));
                return m_screen.contains(text.toUtf8());
            },
            10'000);
        m_screen.clear();
        return isThere;
    }

    int exitCodeAfter(int signal)
    {
        int status = -1;
        ::kill(m_pid, signal);
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    int m_terminal = -1;
    pid_t m_pid = -1;
    QByteArray m_screen;
};

} // namespace

class DeskAttackTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_directory;

    QString path(const QString& name) const { return m_directory->filePath(name); }

private Q_SLOTS:
    void init()
    {
        qunsetenv("TMPDIR");
        m_directory = std::make_unique<QTemporaryDir>();
        qputenv("TMPDIR", QFile::encodeName(m_directory->path()));
        qputenv("XDG_DATA_HOME", QFile::encodeName(path(u"data"_s)));
    }

    void aSecondUser()
    {
        if (::geteuid() != 0)
            QSKIP("root alone can become somebody else");
        QCOMPARE(::chmod(QFile::encodeName(m_directory->path()).constData(), 01777), 0); // As /tmp.
        Desk desk(Clock::ofSystem(), path(u"data"_s));
        QVERIFY(desk.start());
        const QByteArray place = QFile::encodeName(desk.channelPath());
        sockaddr_un address{AF_UNIX, {}};
        qstrncpy(address.sun_path, place.constData(), sizeof address.sun_path);
        const auto* const raw = reinterpret_cast<const sockaddr*>(&address);
        const auto asStranger = [&](const std::function<bool()>& attack) {
            test::Child child([&] { ::_exit(int(::setuid(stranger) != 0 || attack())); });
            return child.wait();
        };
        const auto newSocket = [] { return ::socket(AF_UNIX, SOCK_STREAM, 0); };
        QCOMPARE(asStranger([&] { return ::connect(newSocket(), raw, sizeof address) == 0; }), 0);
        QCOMPARE(asStranger([&] { return ::bind(newSocket(), raw, sizeof address) == 0; }), 0);
        QCOMPARE(asStranger([&] { return ::unlink(place.constData()) == 0; }), 0);
        QCOMPARE(asStranger([&] {
                     const QByteArray other = place + "2";
                     const int fd = ::open(other.constData(), O_CREAT | O_WRONLY, 0600);
                     return fd < 0 || ::rename(other.constData(), place.constData()) == 0;
                 }),
                 0);
        AskingClient client(request(u"still there"_s));
        QTRY_COMPARE(desk.questions().size(), 1);

        desk.quit(); // Who listens there first is told of.
        QCOMPARE(asStranger([&] { return ::bind(newSocket(), raw, sizeof address) != 0; }), 0);
        Desk next(Clock::ofSystem(), path(u"data2"_s));
        QVERIFY(!next.start());
        QVERIFY2(next.problem().contains(u"属于用户 1234"), qPrintable(next.problem()));
    }

    void aThousandConnections()
    {
        Desk desk(Clock::ofSystem(), path(u"data"_s));
        QVERIFY(desk.start());
        qint64 before = 0;
        for (int i = 0; i < 1100; ++i) {
            if (i == 100)
                before = residentKib();
            AskingClient client = i % 2 == 0 ? AskingClient() : AskingClient("garbage");
            QVERIFY(i % 2 == 0 || client.answerLine().contains("false"));
        }
        std::deque<AskingClient> silent;
        for (int i = 0; i < 64; ++i)
            silent.emplace_back();
        AskingClient client(request(u"x"_s));
        QTRY_COMPARE(desk.questions().size(), 1);
        QCOMPARE(desk.questions().first().asker.pid, quint32(::getpid()));
        desk.allow(desk.questions().first().id);
        QVERIFY(client.answer().granted);
        const qint64 growth = residentKib() - before;
        QVERIFY2(growth < allowedGrowthKib, qPrintable(QString::number(growth)));
    }

    void killedAtAnyMoment()
    {
        QSet<QString> granted;
        for (int round = 0; round < 200; ++round) {
            QProcess desk;
            desk.start(QCoreApplication::applicationFilePath(), {u"--serve"_s, path(u"data"_s)});
            QVERIFY(desk.waitForStarted());
            const auto pid = static_cast<pid_t>(desk.processId());
            QVERIFY2(desk.waitForReadyRead(10'000), "does not start any more");
            const auto life =
                std::chrono::microseconds(QRandomGenerator::global()->bounded(40'000));
            std::thread killer([=] {
                std::this_thread::sleep_for(life);
                ::kill(pid, SIGKILL);
            });
            for (int i = 0; desk.state() == QProcess::Running; ++i) {
                const QString name = u"%1-%2"_s.arg(QString::number(round), QString::number(i));
                if (!consent::exchange(request(name), {}).granted)
                    break;
                granted.insert(name);
            }
            killer.join();
            QVERIFY(desk.waitForFinished());
        }
        qInfo("%lld grants", granted.size());
        QVERIFY(granted.size() > 50);
        QSet<QString> recorded;
        for (const QFileInfo& info : QDir(path(u"data"_s)).entryInfoList({u"*.jsonl"_s})) {
            QFile file(info.filePath());
            QVERIFY(file.open(QFile::ReadOnly));
            for (const QByteArray& line : file.readAll().split('\n')) {
                const QJsonObject entry = QJsonDocument::fromJson(line).object();
                if (entry.value(u"outcome"_s) == u"granted"_s)
                    recorded.insert(entry.value(u"summary"_s).toString());
            }
        }
        QVERIFY((granted - recorded).isEmpty());
    }

    void aPersonAtATerminal()
    {
        DeskAtTerminal desk;
        QVERIFY(desk.shows(u"korvane-consent-v1"_s));
        DeskAtTerminal second;
        QVERIFY(second.shows(u"另一个授权台占用 (PID"_s));
        desk.type("y\ny");
        AskingClient client(request(u"first"_s));
        QVERIFY(desk.shows(u"后果"_s));
        desk.type("\ny\ny");
        QVERIFY(desk.shows(u"[y/N] "_s));
        QVERIFY(client.isConnected());
        desk.type("y\n");
        QVERIFY(client.answer().granted);
        AskingClient refused(request(u"second"_s));
        QVERIFY(desk.shows(u"[y/N] "_s));
        desk.type("\n");
        QCOMPARE(refused.answer().message, replyMessage(Outcome::Refused));
        AskingClient last(request(u"third"_s));
        QVERIFY(desk.shows(u"third"_s));
        QCOMPARE(desk.exitCodeAfter(SIGTERM), 0);
        QCOMPARE(last.answer().message, replyMessage(Outcome::Quitting));
        QVERIFY(QDir(m_directory->path())
                    .entryList({u"korvane*"_s}, QDir::AllEntries | QDir::System)
                    .isEmpty());
    }

    void startingWithTheSession()
    {
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(path(u"a"_s)));
        QVERIFY(!platform::startsWithSession());
        QVERIFY(platform::setStartsWithSession(false).ok);
        QVERIFY(platform::setStartsWithSession(true).ok && platform::startsWithSession());
        QFile entry(path(u"a/autostart/%1.desktop"_s.arg(QCoreApplication::applicationName())));
        QVERIFY(entry.open(QFile::ReadOnly));
        const QByteArray program = QFile::encodeName(QCoreApplication::applicationFilePath());
        QVERIFY(entry.readAll().contains("\nExec=\"" + program + "\" --background\n"));
        QVERIFY(platform::setStartsWithSession(false).ok && !platform::startsWithSession());
        QVERIFY(QDir(path(u"a"_s)).removeRecursively());
        QVERIFY(QFile(path(u"a"_s)).open(QFile::WriteOnly)); // In the directory's place.
        QVERIFY(!platform::setStartsWithSession(true).ok && !platform::startsWithSession());
        qunsetenv("XDG_CONFIG_HOME");
    }

    void ancestors()
    {
        test::Child outer([] {});
        const auto processes = platform::processAndAncestors(quint32(outer.pid()));
        QVERIFY(processes.size() >= 3);
        QCOMPARE(processes[1].pid, quint32(::getpid()));
        QCOMPARE(processes[0].parentPid, processes[1].pid);
        QCOMPARE(processes[1].exePath, QCoreApplication::applicationFilePath());
        QCOMPARE(processes[2].pid, quint32(::getppid()));
        for (const quint32 none : {0U, 4'000'000'000U})
            QVERIFY(platform::processAndAncestors(none).isEmpty());
    }
};

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--serve") == 0) { // A desk where everything is allowed.
        Desk desk(Clock::ofSystem(), QFile::decodeName(argv[2]));
        QObject::connect(&desk, &Desk::questionAdded, &desk, &Desk::allow);
        const bool isListening = desk.start();
        QTextStream(stdout) << (isListening ? u"listening\n"_s : desk.problem());
        return isListening ? QCoreApplication::exec() : 1;
    }
    DeskAttackTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_desk_attacks.moc"
