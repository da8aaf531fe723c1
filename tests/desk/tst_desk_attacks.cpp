// Attacks on the desk with real sockets, processes, users and terminals.
#include "consent/consent_exchange.h"
#include "desk/asking_client.h"
#include "desk/desk.h"
#include "platform/processes.h"
#include "platform/session.h"
#include "support/system.h"

#include <QRandomGenerator>
#include <QTextStream>

#include <deque>

#include <malloc.h>

using namespace korvane;
using namespace korvane::desk;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using test::AskingClient;

namespace {

constexpr uid_t stranger = 1234;

consent::Request request(const QString& summary)
{
    return {u"kill_process"_s, {}, summary, {}, {}};
}

} // namespace

class DeskAttackTest : public QObject
{
    Q_OBJECT

    std::optional<test::OwnTmp> m_tmp;

    QString path(const QString& name) const { return m_tmp->filePath(name); }

private Q_SLOTS:
    void init()
    {
        m_tmp.emplace();
        qputenv("XDG_DATA_HOME", QFile::encodeName(path(u"data"_s)));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(path(u"config"_s)));
    }

    void aSecondUser()
    {
        if (::geteuid() != 0)
            QSKIP("root alone can become somebody else");
        QCOMPARE(::chmod(QFile::encodeName(m_tmp->path()).constData(), 01777), 0); // As /tmp.
        Desk desk(Clock::ofSystem(), path(u"data"_s));
        QVERIFY(desk.start());
        const QByteArray place = QFile::encodeName(desk.channelPath());
        const QByteArray other = place + '2';
        const sockaddr_un address = test::localAddress(place);
        const auto* const raw = reinterpret_cast<const sockaddr*>(&address);
        const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
        const std::array<std::function<bool()>, 4> attacks{
            [&] { return ::connect(socket, raw, sizeof address) == 0; },
            [&] { return ::bind(socket, raw, sizeof address) == 0; },
            [&] { return ::unlink(place.constData()) == 0; },
            [&] { return ::rename(other.constData(), place.constData()) == 0; },
        };
        const auto asStranger = [&](const std::function<bool()>& attack) {
            test::Child child([&] {
                const bool isStranger = ::setuid(stranger) == 0;
                ::close(::open(other.constData(), O_CREAT | O_WRONLY, 0600));
                ::_exit(isStranger ? int(attack()) : 2);
            });
            return child.wait();
        };
        for (const auto& attack : attacks)
            QCOMPARE(asStranger(attack), 0);
        QVERIFY(QFile::exists(QFile::decodeName(other)));
        AskingClient client(request(u"still there"_s));
        QTRY_COMPARE(desk.questions().size(), 1);

        desk.quit(); // Who listens there first is told of.
        QCOMPARE(asStranger(attacks[1]), 1);
        Desk next(Clock::ofSystem(), path(u"data2"_s));
        QVERIFY(!next.start());
        QVERIFY2(next.problem().contains(u"属于用户 1234"), qPrintable(next.problem()));
    }

    void aThousandConnections()
    {
        Desk desk(Clock::ofSystem(), path(u"data"_s));
        QVERIFY(desk.start());
        // Not what the system says of the program: the allocator's reserves are in that.
        const auto memory = [] { return ::mallinfo2().uordblks + ::mallinfo2().hblkhd; };
        std::size_t before = 0;
        for (int i = 0; i < 1100; ++i) {
            before = i == 100 ? memory() : before;
            AskingClient client = i % 2 == 0 ? AskingClient() : AskingClient("garbage");
            QVERIFY(i % 2 == 0 || client.answerLine().contains("false"));
        }
        QVERIFY2(memory() < before + (64 << 10), qPrintable(QString::number(memory() - before)));
        std::deque<AskingClient> silent(64);
        AskingClient client(request(u"x"_s));
        QTRY_COMPARE(desk.questions().size(), 1);
        QCOMPARE(desk.questions().first().asker.pid, quint32(::getpid()));
        desk.allow(desk.questions().first().id);
        QVERIFY(client.answer().granted);
    }

    void killedAtAnyMoment()
    {
        QSet<QString> granted;
        for (int round = 0; round < 200; ++round) {
            QProcess desk;
            desk.start(QCoreApplication::applicationFilePath(), {u"--serve"_s, path(u"data"_s)});
            QVERIFY(desk.waitForReadyRead(10'000));
            QCOMPARE(desk.readAll(), QByteArray("listening\n"));
            consent::Result result{true, {}};
            for (int i = 0; result.granted; ++i) {
                const QString name = u"%1-%2"_s.arg(QString::number(round), QString::number(i));
                result = consent::exchange(request(name), {});
                if (result.granted)
                    granted.insert(name);
            }
            QVERIFY2(desk.waitForFinished(), qPrintable(result.message));
            QCOMPARE(desk.exitStatus(), QProcess::CrashExit);
        }
        QVERIFY2(granted.size() > 200, qPrintable(QString::number(granted.size())));
        const QStringList recorded = test::linesOf(
            test::shell("cat $0/*.jsonl | grep outcome.:.granted | grep -o 'summary.:.[0-9-]*' |"
                        "grep -o '[0-9-]*$'",
                        {path(u"data"_s)}));
        QVERIFY((granted - QSet(recorded.begin(), recorded.end())).isEmpty());
    }

    void aDeskThatIsToldToEnd()
    {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        const QString program = QCoreApplication::applicationDirPath() + u"/../src/korvane-desk"_s;
        QProcess desk;
        desk.start(program, {u"--background"_s});
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(path(u"korvane-consent-v1"_s)), 30'000);
        AskingClient asking(request(u"last"_s));
        QVERIFY(AskingClient("garbage").answerLine().contains("false")); // Which came later.
        QCOMPARE(QProcess::execute(program, {}), 0); // It has had the first show itself.
        const QString beside = test::shell("script -qec \"$0 --terminal\" /dev/null", {program});
        QVERIFY2(beside.contains(u"PID %1"_s.arg(desk.processId())), qPrintable(beside));
        desk.terminate();
        QCOMPARE(asking.answer().message, replyMessage(Outcome::Quitting));
        QTRY_COMPARE_WITH_TIMEOUT(desk.state(), QProcess::NotRunning, 30'000);
        QVERIFY(desk.exitStatus() == QProcess::NormalExit && desk.exitCode() == 0);
        const QString history = test::shell("\"$0\" --history 1", {program});
        QVERIFY2(history.contains(u"(授权台退出") && history.contains(u"last"),
                 qPrintable(history));
        const auto all = QDir::AllEntries | QDir::System;
        QCOMPARE(QDir(m_tmp->path()).entryList({u"korvane*"_s}, all), QStringList());
    }

    void startingWithTheSession()
    {
        QVERIFY(!platform::startsWithSession());
        QVERIFY(platform::setStartsWithSession(false).ok);
        QVERIFY(platform::setStartsWithSession(true).ok && platform::startsWithSession());
        const QString program = QCoreApplication::applicationFilePath();
        QVERIFY(test::readFile(path(u"config/autostart/tst_desk_attacks.desktop"_s))
                    .contains("\nExec=\"" + QFile::encodeName(program) + "\" --background\n"));
        QVERIFY(platform::setStartsWithSession(false).ok && !platform::startsWithSession());
        QVERIFY(QDir(path(u"config"_s)).removeRecursively());
        test::writeFile(path(u"config"_s), "in the directory's place");
        QVERIFY(!platform::setStartsWithSession(true).ok && !platform::startsWithSession());
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
    if (argc == 3 && qstrcmp(argv[1], "--serve") == 0) { // All is allowed, until it is killed.
        Desk desk(Clock::ofSystem(), QFile::decodeName(argv[2]));
        int before = QRandomGenerator::global()->bounded(5);
        const auto die = [life = QRandomGenerator::global()->bounded(10'000)] {
            std::this_thread::sleep_for(std::chrono::microseconds(life));
            static_cast<void>(::raise(SIGKILL));
        };
        QObject::connect(&desk, &Desk::questionAdded, &desk, [&] {
            if (before-- == 0)
                std::thread(die).detach();
        });
        QObject::connect(&desk, &Desk::questionAdded, &desk, &Desk::allow);
        QTextStream(stdout) << (desk.start() ? u"listening\n"_s : desk.problem()) << Qt::flush;
        return QCoreApplication::exec();
    }
    DeskAttackTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_desk_attacks.moc"
