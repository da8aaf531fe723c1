// Tests of the desk without its windows: the channel, the clocks, the history, the terminal.
#include "consent/consent_exchange.h"
#include "desk/asking_client.h"
#include "desk/desk.h"
#include "desk/doorbell.h"
#include "desk/risk.h"
#include "desk/terminal.h"
#include "fake/fake_platform.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <deque>
#include <functional>
#include <memory>

using namespace korvane;
using namespace korvane::desk;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using test::AskingClient;
using test::harmless;

namespace {

HistoryEntry granted(quint64 id, const consent::Request& request = harmless)
{
    HistoryEntry entry;
    entry.id = id;
    entry.request = request;
    entry.outcome = Outcome::Granted;
    return entry;
}

/// What a person would see and type.
class FakeTerminal final : public platform::Terminal
{
public:
    void write(const QByteArray& text) override { screen += QString::fromUtf8(text); }
    void discardInput() override { ++discards; }
    int columns() const override { return 40; }

    QString screen;
    int discards = 0;
};

} // namespace

class DeskTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<Desk> m_desk;
    std::unique_ptr<QSignalSpy> m_ended;
    std::chrono::milliseconds m_now{};

    QString path(const QString& name) const { return m_directory->filePath(name); }

    Clock clock()
    {
        return {.steady = [this] { return m_now; },
                .wall =
                    [this] {
                        return QDateTime::fromMSecsSinceEpoch(1'700'000'000'000 + m_now.count());
                    }};
    }

    std::unique_ptr<Desk> makeDesk() { return std::make_unique<Desk>(clock(), path(u"data"_s)); }

    void pass(std::chrono::milliseconds time)
    {
        m_now += time;
        m_desk->tick();
    }

    /// The id of the next question; 0 where none comes.
    quint64 nextQuestion()
    {
        const qsizetype before = m_desk->questions().size();
        const bool came = QTest::qWaitFor([&] { return m_desk->questions().size() > before; });
        return came ? m_desk->questions().last().id : 0;
    }

    QList<QJsonObject> historyLines(const QString& name = u"data/history.jsonl"_s) const
    {
        QFile file(path(name));
        QList<QJsonObject> lines;
        if (file.open(QFile::ReadOnly) && file.size() > 0) {
            while (!file.atEnd())
                lines.append(QJsonDocument::fromJson(file.readLine()).object());
        }
        return lines;
    }

    QString lastOutcome() const
    {
        return m_ended->isEmpty() ? QString() : outcomeName(m_ended->last().at(1).value<Outcome>());
    }

private Q_SLOTS:
    void init()
    {
        fake::reset();
        qunsetenv("TMPDIR");
        m_directory = std::make_unique<QTemporaryDir>();
        QVERIFY(m_directory->isValid());
        qputenv("TMPDIR", QFile::encodeName(m_directory->path()));
        m_now = 1h;
        m_desk = makeDesk();
        m_ended = std::make_unique<QSignalSpy>(m_desk.get(), &Desk::questionEnded);
        QVERIFY2(m_desk->start(), qPrintable(m_desk->problem()));
    }
    void cleanup() { m_desk.reset(); }

    // clang-format off
    void questions_data()
    {
        using Act = std::function<void(quint64)>;
        QTest::addColumn<Act>("act");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("message");
        const auto row = [](const char* tag, const Act& act, const char* outcome, const QString& message) {
            QTest::newRow(tag) << act << QString::fromLatin1(outcome) << message;
        };
        const QString timeOut = u"120 秒内无人作答"_s;
        row("yes", [this](quint64 id) { m_desk->allow(id); }, "granted", u"明确允许"_s);
        row("no", [this](quint64 id) { m_desk->refuse(id); }, "refused", u"明确拒绝"_s);
        row("yes, then no", [this](quint64 id) { m_desk->allow(id), m_desk->refuse(id); }, "granted", u"明确允许"_s);
        row("yes to another", [this](quint64 id) { m_desk->allow(id + 1), m_desk->refuse(id); }, "refused", u"明确拒绝"_s);
        row("yes at the last moment", [this](quint64 id) { pass(120s - 1ms), m_desk->allow(id); }, "granted", u"明确允许"_s);
        row("nothing", [this](quint64) { pass(120s); }, "timedOut", timeOut);
        row("yes too late", [this](quint64 id) { m_now += 120s, m_desk->allow(id); }, "timedOut", timeOut);
        row("pause", [this](quint64) { m_desk->pauseFor({}); }, "paused", u"暂时拒绝一切"_s);
        row("quit", [this](quint64) { m_desk->quit(); }, "quitting", u"正在退出"_s);
        row("end of the desk", [this](quint64) { m_desk.reset(); }, "quitting", u"正在退出"_s);
        const auto breakDisk = [] { fake::platform().canSync = [] { return false; }; };
        const auto fillDisk = [this] { QDir().mkpath(path(u"data"_s)), QFile::link(u"/dev/full"_s, path(u"data/history.jsonl"_s)); };
        row("yes on a broken disk", [=, this](quint64 id) { breakDisk(), m_desk->allow(id); }, "notRecorded", u"无法写入"_s);
        row("yes on a full disk", [=, this](quint64 id) { fillDisk(), m_desk->allow(id); }, "notRecorded", u"无法写入"_s);
        row("no on a full disk", [=, this](quint64 id) { fillDisk(), m_desk->refuse(id); }, "refused", u"明确拒绝"_s);
    }
    // clang-format on
    void questions()
    {
        QFETCH(std::function<void(quint64)>, act);
        QFETCH(QString, outcome);
        QFETCH(QString, message);
        AskingClient client(harmless);
        const quint64 id = nextQuestion();
        QCOMPARE(consent::encodeRequest(m_desk->questions().first().request),
                 consent::encodeRequest(harmless));
        act(id);
        QCOMPARE(lastOutcome(), outcome);
        QCOMPARE(m_ended->count(), 1);
        const consent::Result result = client.answer();
        QCOMPARE(result.granted, outcome == u"granted");
        QVERIFY2(result.message.contains(message), qPrintable(result.message));
        if (!m_desk)
            return;
        QVERIFY(m_desk->questions().isEmpty());
        QCOMPARE(outcomeName(m_desk->history().first().outcome), outcome);
        const QList<QJsonObject> lines = historyLines();
        if (!m_desk->problem().isEmpty()) { // Nor does a grant stand there that never went out.
            QVERIFY(!lines.value(0).contains(u"outcome"_s));
            return;
        }
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines[0].value(u"outcome"_s).toString(), outcome);
        QCOMPARE(lines[1].value(u"delivered"_s), QJsonValue(true));
        QCOMPARE(lines[1].value(u"id"_s), lines[0].value(u"id"_s));
    }

    void theDecisionIsWrittenBeforeTheAnswer()
    {
        AskingClient client(harmless);
        const quint64 id = nextQuestion();
        bool isAnswered = true;
        fake::platform().canSync = [&] {
            isAnswered = QTest::qWaitFor([&] { return !client.isConnected(); }, 50);
            return historyLines().size() == 1;
        };
        m_desk->allow(id);
        QVERIFY(!isAnswered);
        QVERIFY(client.answer().granted);
    }

    void noTwoOutcomesSoundAlike()
    {
        QSet<QString> messages;
        for (int i = 0; i <= int(Outcome::AskerGone); ++i) {
            const auto outcome = Outcome(i);
            messages.insert(replyMessage(outcome));
            QVERIFY(outcomeOfName(outcomeName(outcome)) == outcome);
        }
        QCOMPARE(messages.size(), int(Outcome::AskerGone) + 1);
    }

    void anAskerWhoLeavesTakesTheQuestionAlong_data()
    {
        QTest::addColumn<bool>("isNoticed");
        QTest::newRow("noticed") << true;
        QTest::newRow("at the moment of the yes") << false;
    }
    void anAskerWhoLeavesTakesTheQuestionAlong()
    {
        QFETCH(bool, isNoticed);
        AskingClient client(harmless);
        const quint64 id = nextQuestion();
        client.leave();
        if (isNoticed)
            QTRY_VERIFY(m_desk->questions().isEmpty());
        m_desk->allow(id);
        QCOMPARE(lastOutcome(), u"askerGone"_s);
        QCOMPARE(historyLines().size(), 1); // Nothing was sent.
    }

    void eachQuestionHasItsOwnClock()
    {
        AskingClient first(harmless);
        const quint64 firstId = nextQuestion();
        pass(70s);
        AskingClient second(harmless);
        const quint64 secondId = nextQuestion();
        pass(49s);
        QCOMPARE(m_desk->remaining(firstId).count(), 1000);
        QCOMPARE(m_desk->remaining(secondId).count(), 71000);
        pass(1s);
        QCOMPARE(m_desk->questions().size(), 1);
        QCOMPARE(m_desk->remaining(firstId).count(), 0);
        m_desk->allow(secondId);
        QVERIFY(!first.answer().granted);
        QVERIFY(second.answer().granted);
        QVERIFY(firstId < secondId);
    }

    // clang-format off
    void garbage_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("fault");
        const auto row = [](const char* tag, QByteArray line, const QString& fault) {
            QTest::newRow(tag) << line.replace('`', '"') << fault;
        };
        const QByteArray four = "{`action`:`a`,`detail`:``,`summary`:``,`title`:``";
        row("empty", "", u"不是有效的 JSON"_s);
        row("text", "kill them all", u"不是有效的 JSON"_s);
        row("no UTF-8", four + ",`reason`:`\xff`}", u"不是有效的 JSON"_s);
        row("deep", QByteArray(100'000, '['), u"不是有效的 JSON"_s);
        row("array", "[]", u"不是 JSON 对象"_s);
        row("missing member", four + "}", u"缺少成员 reason"_s);
        row("number", four + ",`reason`:1}", u"成员 reason 不是字符串"_s);
        row("null", four + ",`reason`:null}", u"成员 reason 不是字符串"_s);
        row("too long", four + ",`reason`:`" + QByteArray(256 << 10, 'x') + "`}", u"超过 256 KiB"_s);
        row("much too long", QByteArray(8 << 20, '{'), u"超过 256 KiB"_s);
    }
    // clang-format on
    void garbage()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, fault);
        AskingClient client(line);
        const consent::Result result = client.answer();
        QVERIFY(!result.granted);
        QCOMPARE(result.message, replyMessage(Outcome::Malformed, fault));
        QVERIFY(m_desk->questions().isEmpty());
        QCOMPARE(historyLines().value(0).value(u"outcome"_s), QJsonValue(u"malformed"_s));
    }

    void requestsThatAreUnusualButWhole()
    {
        QByteArray longest = consent::encodeRequest(harmless);
        longest.insert(longest.size() - 1, QByteArray((256 << 10) - longest.size(), ' '));
        for (const QByteArray& line :
             {longest, consent::encodeRequest(harmless).replace('}', ",\"x\":[]}\nmore\n")}) {
            AskingClient client(line);
            m_desk->allow(nextQuestion());
            QVERIFY(client.answer().granted);
        }
    }

    void strangersAreNotHeard()
    {
        fake::platform().peerMayAnswer = [] { return false; };
        AskingClient client(harmless);
        QCOMPARE(client.answerLine(), QByteArray());
        QVERIFY(m_desk->history().isEmpty());
    }

    void pauses_data()
    {
        QTest::addColumn<int>("minutes");
        QTest::newRow("10 minutes") << 10;
        QTest::newRow("an hour") << 60;
        QTest::newRow("until changed") << 0;
    }
    void pauses()
    {
        QFETCH(int, minutes);
        const QSignalSpy changes(m_desk.get(), &Desk::stateChanged);
        const std::chrono::minutes time(minutes);
        m_desk->pauseFor(minutes == 0 ? std::nullopt : std::optional<std::chrono::seconds>(time));
        QCOMPARE(m_desk->pausedUntil(),
                 minutes == 0 ? QDateTime() : clock().wall().addSecs(qint64{60} * minutes));
        pass(time - 1s);
        AskingClient refused(harmless);
        QCOMPARE(refused.answer().message, replyMessage(Outcome::Paused));
        QVERIFY(m_desk->state() == Desk::State::Paused);
        pass(minutes == 0 ? 24h : 1s);
        QCOMPARE(m_desk->isPaused(), minutes == 0);
        m_desk->resume();
        QVERIFY(m_desk->state() == Desk::State::Listening);
        QVERIFY(changes.count() >= 2);
        AskingClient asked(harmless);
        QVERIFY(nextQuestion() != 0);
    }

    // clang-format off
    void whatIsInTheChannelsPlace_data()
    {
        using Prepare = std::function<void(const QString&)>;
        QTest::addColumn<Prepare>("prepare");
        QTest::addColumn<QString>("problem"); // Empty where the desk takes the place.
        const auto row = [](const char* tag, const Prepare& prepare, const QString& problem) {
            QTest::newRow(tag) << prepare << problem;
        };
        const auto touch = [](const QString& name) { // A file of a minute ago, or one that has become so.
            QFile file(name);
            QVERIFY(file.open(QFile::ReadWrite));
            QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-60), QFile::FileModificationTime));
        };
        row("nothing", [](const QString&) {}, {});
        row("the socket of a killed desk", [](const QString& name) {
            QLocalServer server;
            QVERIFY(server.listen(name) && QFile::rename(name, name + u'1'));
            server.close();
            QVERIFY(QFile::rename(name + u'1', name));
        }, {});
        row("the lock of a desk that was killed at once", [=](const QString& name) { touch(name + u".lock"_s); }, {});
        row("another program", [this](const QString& name) {
            auto* const server = new QLocalServer(m_desk.get());
            QVERIFY(server->listen(name));
        }, u"另一个程序占用"_s);
        row("another desk", [=, this](const QString& name) {
            auto* const other = new Desk(clock(), path(u"other"_s));
            other->setParent(m_desk.get());
            QVERIFY(other->start());
            touch(name + u".lock"_s); // Its age does not make it anybody's.
        }, u"另一个授权台占用 (PID %1"_s.arg(QCoreApplication::applicationPid()));
        row("a file", touch, u"不是套接字"_s);
        row("a directory", [](const QString& name) { QVERIFY(QDir().mkdir(name)); }, u"不是套接字"_s);
        row("a link to nowhere", [](const QString& name) { QVERIFY(QFile::link(u"nowhere"_s, name)); }, u"不是套接字"_s);
    }
    // clang-format on
    void whatIsInTheChannelsPlace()
    {
        QFETCH(std::function<void(const QString&)>, prepare);
        QFETCH(QString, problem);
        const QString place = m_desk->channelPath();
        m_desk->quit();
        QVERIFY(!QFileInfo::exists(place));
        prepare(place);
        const auto desk = makeDesk();
        QCOMPARE(desk->start(), problem.isEmpty());
        QVERIFY2(desk->problem().contains(problem) && desk->channelPath() == place,
                 qPrintable(desk->problem()));
        QVERIFY(desk->problem().isEmpty() || desk->problem().contains(place));
        QCOMPARE(desk->otherDesk() != 0, problem.contains(u"PID"));
        if (problem.isEmpty())
            QCOMPARE(QFile::permissions(place) & 0x0fff, QFile::Permissions(0x0600));
        else
            QVERIFY(desk->state() == Desk::State::Unavailable &&
                    (QFileInfo::exists(place) || QFileInfo(place).isSymLink()));
    }

    void aLostSocketIsMadeAnew()
    {
        QVERIFY(QFile::remove(m_desk->channelPath()));
        QVERIFY(m_desk->state() == Desk::State::Unavailable);
        pass(10s);
        QVERIFY(m_desk->state() == Desk::State::Listening);
        AskingClient client(harmless);
        QVERIFY(nextQuestion() != 0);
    }

    void crowds()
    {
        std::deque<AskingClient> silent;
        for (int i = 0; i < 65; ++i)
            silent.emplace_back();
        const QString tooMany = replyMessage(Outcome::Malformed, u"同时发送的请求过多"_s);
        QCOMPARE(silent.front().answer().message, tooMany);
        std::deque<AskingClient> asking;
        for (int i = 0; i < 64; ++i) {
            asking.emplace_back(harmless);
            QVERIFY(nextQuestion() != 0);
        }
        AskingClient oneMore(harmless);
        QCOMPARE(oneMore.answer().message, replyMessage(Outcome::Crowded));
        QVERIFY(asking.front().isConnected());

        AskingClient slow; // Whoever has waited longer has made room.
        QTRY_VERIFY(slow.isConnected());
        QTest::qWait(20);
        pass(5s - 1ms);
        QVERIFY(slow.isConnected());
        pass(1ms);
        QCOMPARE(slow.answer().message, replyMessage(Outcome::Malformed, u"请求未在 5 秒内送达"_s));
    }

    // clang-format off
    void askers_data()
    {
        QTest::addColumn<QString>("executable");
        QTest::addColumn<QString>("chain");
        QTest::addColumn<bool>("isOwnServer");
        const QString beside = QCoreApplication::applicationDirPath() + u"/korvane-mcp"_s;
        QTest::newRow("the server") << beside << u"korvane-mcp (4711) ← node ← c\ufffdde"_s << true;
        QTest::newRow("its namesake") << u"/tmp/korvane-mcp"_s << u"korvane-mcp (4711) ← node ← c\ufffdde"_s << false;
        QTest::newRow("hostile") << u"/tmp/a\nb"_s << u"a\ufffdb (4711) ← node ← c\ufffdde"_s << false;
        QTest::newRow("unknown") << QString() << u"PID 4711"_s << false;
    }
    // clang-format on
    void askers()
    {
        QFETCH(QString, executable);
        if (!executable.isEmpty()) {
            const QString name = executable.section(u'/', -1);
            fake::platform().ancestors = {{.pid = 4711, .name = name, .exePath = executable},
                                          {.pid = 5, .name = u"node"_s, .exePath = {}},
                                          {.pid = 4, .name = u"c\u202ede"_s, .exePath = {}}};
        }
        AskingClient client(harmless);
        nextQuestion();
        const Asker asker = m_desk->questions().first().asker;
        QTEST(asker.chainText(), "chain");
        QTEST(asker.isOwnServer, "isOwnServer");
        QCOMPARE(asker.isKnown, !executable.isEmpty());
        QVERIFY(!asker.executable.contains(u'\n'));
    }

    void historyOfDamagedFiles()
    {
        m_desk->quit();
        History history(path(u"data"_s));
        QVERIFY(history.record(granted(7)).ok);
        history.recordDelivery(7, false);
        QFile file(path(u"data/history.jsonl"_s));
        QVERIFY(file.open(QFile::Append));
        QCOMPARE(file.permissions() & 0x0fff, QFile::Permissions(0x0600));
        file.write("\n{}\nnull\n\xff\n{\"outcome\":\"bought\"}\n{\"id\":8,\"delivered\":true}\n"
                   "{\"id\":9,\"outcome\":\"granted\"}"); // Cut off: who knows what it was to be.
        file.close();
        QVERIFY(history.record(granted(10)).ok);
        History reread(path(u"data"_s));
        const QList<HistoryEntry> entries = reread.entries();
        QCOMPARE(entries.size(),
                 3); // The cut line is whole now, as its end was all that it lacked.
        QCOMPARE(entries[0].id, 10U);
        QCOMPARE(entries[2].request.detail, harmless.detail);
        QVERIFY(entries[2].delivery == HistoryEntry::Delivery::AskerGone);
        const OpResult second = reread.record(granted(7));
        QVERIFY(!second.ok && second.message.contains(u"另一个授权台"));
    }

    void historyIsRotated()
    {
        m_desk->quit();
        History history(path(u"data"_s));
        const consent::Request large{{}, {}, {}, QString(1 << 20, u'x'), {}};
        for (quint64 id = 1; id <= 25; ++id)
            QVERIFY(history.record(granted(id, large)).ok);
        QCOMPARE(QDir(path(u"data"_s)).entryList(QDir::Files),
                 QStringList({u"history.1.jsonl"_s, u"history.2.jsonl"_s, u"history.3.jsonl"_s,
                              u"history.jsonl"_s, u"history.lock"_s}));
        for (const QFileInfo& file : QDir(path(u"data"_s)).entryInfoList(QDir::Files))
            QVERIFY(file.size() <= 5 << 20);
        History reread(path(u"data"_s));
        QCOMPARE(reread.entries().first().id, 25U);
        QCOMPARE(reread.entries().last().id, 13U);
        for (quint64 id = 26; id <= 50; ++id) // No more is remembered than the files would hold.
            QVERIFY(history.entries().size() <= 20 && history.record(granted(id, large)).ok);
        for (quint64 id = 51; id <= 1100; ++id)
            QVERIFY(history.record(granted(id)).ok);
        QCOMPARE(History(path(u"data"_s)).entries().size(), History::maxShown);
    }

    // clang-format off
    void typing_data()
    {
        QTest::addColumn<QByteArrayList>("lines"); // A line each second; a blank one is not typed.
        QTest::addColumn<QString>("outcome");
        const auto row = [](const char* tag, const QByteArrayList& lines, const char* outcome) {
            QTest::newRow(tag) << lines << QString::fromLatin1(outcome);
        };
        row("y", {" ", "y"}, "granted");
        row("late y", {" ", " ", " ", "y"}, "granted");
        row("y before the prompt", {"y"}, "");
        row("y before the prompt, then no", {"y", "n"}, "refused");
        for (const char* line : {"", "Y", "yes", "y ", "yy", "n", "\xff", "允许"})
            row(line, {" ", line}, "refused");
    }
    // clang-format on
    void typing()
    {
        QFETCH(QByteArrayList, lines);
        FakeTerminal terminal;
        TerminalDesk view(*m_desk, terminal);
        terminal.onLine("y"); // To no question at all.
        AskingClient client(harmless);
        nextQuestion();
        AskingClient next(harmless);
        nextQuestion();
        for (const QByteArray& line : lines) {
            QCOMPARE(terminal.discards, m_now > 1h ? 1 : 0);
            if (line != " ")
                terminal.onLine(line);
            m_now += 1s;
            view.update();
        }
        QTEST(lastOutcome(), "outcome");
        QCOMPARE(m_desk->questions().size(), m_ended->isEmpty() ? 2 : 1);
    }

    void theScreenShowsWhatMatters()
    {
        FakeTerminal terminal;
        TerminalDesk view(*m_desk, terminal);
        QVERIFY(terminal.screen.contains(m_desk->channelPath()));
        AskingClient client({u"format_disk"_s, u"标题"_s, u"概要\x1b[2J"_s,
                             u"┘\n请求方: x [y/N]"_s + QString(100, u'长'), u"r\r"_s});
        nextQuestion();
        QVERIFY(!terminal.screen.contains(u'\x1b') && !terminal.screen.contains(u'\r'));
        QVERIFY(terminal.screen.contains(u"│ 请求方: x [y/N]长"));
        for (const QString& line : terminal.screen.split(u'\n'))
            QVERIFY2(!line.startsWith(u'长') && line.count(u'长') <= 18, qPrintable(line));
        QVERIFY(terminal.screen.contains(riskOf(u"format_disk"_s).text));
        QVERIFY(terminal.screen.contains(u"警告: 无法得知"_s));
        QVERIFY(!terminal.screen.contains(u"[y/N] "));
        QStringList seconds;
        for (int left = 119; left > 0; --left) {
            m_now += 1s;
            terminal.screen.clear();
            view.update();
            if (terminal.screen.contains(u"[y/N]"))
                seconds.append(terminal.screen.section(u"剩余 "_s, 1).section(u' ', 0, 0));
        }
        QCOMPARE(seconds, QStringList({u"119"_s, u"60"_s, u"30"_s, u"10"_s}));
        terminal.screen.clear();
        pass(1s);
        QVERIFY(terminal.screen.contains(u"→ 已拒绝 (超时)"));
        const QString text = historyText(m_desk->history(), 9);
        QVERIFY(text.contains(u"概要\ufffd[2J") && text.contains(u"format_disk"));
    }

    void onlyTheFirstRings()
    {
        QVERIFY(!Doorbell::ring());
        Doorbell doorbell;
        const QSignalSpy rings(&doorbell, &Doorbell::rung);
        QVERIFY(doorbell.listen());
        QVERIFY(Doorbell::ring());
        QTRY_COMPARE(rings.count(), 1);
        fake::platform().peerMayAnswer = [] { return false; };
        QVERIFY(!Doorbell::ring());
    }
};

QTEST_GUILESS_MAIN(DeskTest)
#include "tst_desk.moc"
