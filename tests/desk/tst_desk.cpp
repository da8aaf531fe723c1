// Tests of the desk without its windows: the channel, the clocks, the history, the terminal.
#include "desk/desk_suite.h"
#include "desk/doorbell.h"
#include "desk/risk.h"
#include "desk/terminal.h"
#include "support/table.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QProcess>

using namespace korvane;
using namespace korvane::desk;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using test::AskingClient;
using test::harmless;

namespace {

using Act = std::function<void()>;

HistoryEntry granted(quint64 id, const consent::Request& request = harmless)
{
    return {id, {}, {}, {}, request, Outcome::Granted};
}

/// What a person would see and type.
class FakeTerminal final : public platform::Terminal
{
public:
    void write(const QByteArray& text) override
    {
        screen += QString::fromUtf8(text);
        std::exchange(onWrite, [] {})();
    }
    void discardInput() override { ++discards; }
    int columns() const override { return 40; }

    QString screen;
    std::function<void()> onWrite = [] {}; ///< Once.
    int discards = 0;
};

} // namespace

class DeskTest : public test::DeskSuite
{
    Q_OBJECT

    QString m_history;
    QString m_place; ///< Of the channel.
    const bool m_isFile = platform::areLocalSocketsFiles();

    /// The lines of the history: outcomes, each with "+" where its answer is told to have arrived.
    QByteArray recorded() const
    {
        QFile file(m_history);
        const bool isFile = file.open(QFile::ReadOnly) && !file.isSequential();
        QByteArray told;
        QJsonValue id;
        while (isFile && !file.atEnd()) {
            const QJsonObject line = QJsonDocument::fromJson(file.readLine()).object();
            const bool isOfLast = line[u"id"_s] == id && line[u"delivered"_s].toBool();
            told += line[u"outcome"_s].toString(isOfLast ? u"+"_s : u"?"_s).toUtf8();
            id = line[u"id"_s];
        }
        return told;
    }

    void breakDisk()
    {
        fake::platform().canSync = [] { return false; };
    }
    void fillDisk() const
    {
        QDir().mkdir(path(u"data"_s));
        m_isFile ? QFile::link(u"/dev/full"_s, m_history) : QDir().mkdir(m_history);
    }

    /// The answer is sent after the decision is on the disk.
    void watchDisk()
    {
        fake::platform().canSync = [this] {
            return recorded() == "granted" && !m_clients[0].hears();
        };
    }

    // clang-format off
    const test::Cases<Act, QByteArray, QByteArray, QByteArray> m_endings{
        {"yes, written first", [this] { watchDisk(), yes(); }, "granted", "明确允许", "granted+"},
        {"yes, then no", [this] { yes(), no(); }, "granted", "明确允许", "granted+"},
        {"another yes", [this] { m_desk->allow(m_id + 1), no(); }, "refused", "明确拒绝", "refused+"},
        {"yes in time", [this] { pass(120s - 1ms), yes(); }, "granted", "明确允许", "granted+"},
        {"nothing", [this] { pass(120s); }, "timedOut", "无人作答", "timedOut+"},
        {"yes too late", [this] { m_now += 120s, yes(); }, "timedOut", "无人作答", "timedOut+"},
        {"pause", [this] { m_desk->pauseFor({}); }, "paused", "暂时拒绝一切", "paused+"},
        {"quit", [this] { m_desk->quit(); }, "quitting", "正在退出", "quitting+"},
        {"end of the desk", [this] { m_desk.reset(); }, "quitting", "正在退出", "quitting+"},
        {"asker gone", [this] { m_clients[0].leave(), m_ended->wait(), yes(); }, "askerGone", "", "askerGone"},
        {"asker goes", [this] { m_clients[0].leave(), yes(); }, "askerGone", "", "askerGone"},
        // Nor does a grant stand there that never went out.
        {"yes, broken disk", [this] { breakDisk(), yes(); }, "notRecorded", "无法写入", "?"},
        {"yes, full disk", [this] { fillDisk(), yes(); }, "notRecorded", "无法写入", ""},
        {"no, full disk", [this] { fillDisk(), no(); }, "refused", "明确拒绝", ""},
    };

    const QByteArray m_four = "{`action`:`a`,`detail`:``,`summary`:``,`title`:``";
    const QByteArray m_spaces{(256 << 10) - m_four.size() - 13, ' '};
    /// What is amiss about a line; nothing about those that are only unusual.
    const test::Cases<QByteArray, QByteArray> m_lines{
        {"as long as may be", m_four + ",`reason`:``" + m_spaces + "}", {}},
        {"more than was asked for", m_four + ",`reason`:``,`x`:[]}\nmore\n", {}},
        {"empty", "", "不是有效的 JSON"},
        {"no UTF-8", m_four + ",`reason`:`\xff`}", "不是有效的 JSON"},
        {"deep", QByteArray(100'000, '['), "不是有效的 JSON"},
        {"array", "[]", "不是 JSON 对象"},
        {"missing member", m_four + "}", "缺少成员 reason"},
        {"number", m_four + ",`reason`:1}", "成员 reason 不是字符串"},
        {"too long", m_four + ",`reason`:`` " + m_spaces + "}", "超过 256 KiB"},
        {"much too long", QByteArray(8 << 20, '{'), "超过 256 KiB"},
    };
    // clang-format on

    /// Makes a file of some time ago, or of one that is there.
    static void age(const QString& name, int seconds = 60)
    {
        QFile file(name);
        QVERIFY(file.open(QFile::ReadWrite));
        const QDateTime time = QDateTime::currentDateTime().addSecs(-seconds);
        file.setFileTime(time, QFile::FileModificationTime);
    }

    void leaveTakeOver()
    {
        for (const auto* suffix : {".lock", ".lock.rmlock", ".lock.rmlock.rmlock"})
            age(m_place + QLatin1StringView(suffix), 5);
    }

    /// Nobody writes to it: who reads waits forever.
    void makePipe(const QString& suffix)
    {
        QFile::rename(m_place + u'1', m_place);
        QCOMPARE(QProcess::execute(u"mkfifo"_s, {m_place + suffix}), 0);
    }

    void startOther()
    {
        m_desk->start();
        if (m_isFile)
            age(m_place + u".lock"_s); // Which does not make it anybody's.
        else
            test::setAsker(QCoreApplication::applicationFilePath());
    }

    // clang-format off
    /// By its lock, or as the fake platform tells of who listens.
    const qint64 m_otherDesk = m_isFile ? QCoreApplication::applicationPid() : 4711;
    /// What is in the place of the channel, and what is said of it; nothing where a desk takes it. The
    /// first three whatever a place is.
    const test::Cases<Act, QByteArray> m_obstacles{
        {"nothing", [] {}, {}},
        {"a program", [this] { (new QLocalServer(m_desk.get()))->listen(m_place); }, "另一个程序"},
        {"a desk", [this] { startOther(); }, "(PID " + QByteArray::number(m_otherDesk)},
        {"a killed desk's socket", [this] { QFile::rename(m_place + u'1', m_place); }, {}},
        {"a lock made by who was killed", [this] { age(m_place + u".lock"_s); }, {}},
        {"one that such a one took over", [this] { leaveTakeOver(); }, {}},
        {"a file", [this] { age(m_place); }, "不是套接字"},
        {"a directory", [this] { QDir().mkdir(m_place); }, "不是套接字"},
        {"a pipe for a lock", [this] { makePipe(u".lock"_s); }, "属于用户"},
        {"one for a left lock's", [this] { age(m_place + u".lock"_s), makePipe(u".lock.rmlock"_s); }, "属于用户"},
        {"a link to nowhere", [this] { QFile::link(u"nowhere"_s, m_place); }, "不是套接字"},
    };

    const QString m_server =
        QCoreApplication::applicationFilePath().replace(u"tst_desk"_s, u"korvane-mcp"_s);
    const QString m_chain = u" (4711) ← node ← c\ufffdde"_s;
    /// Who it is, of which program, and whether that is the server itself.
    const test::Cases<QString, QString, bool> m_askers{
        {"the server", m_server, m_server.section(u'/', -1) + m_chain, true},
        {"its namesake", u"/tmp/korvane-mcp"_s, u"korvane-mcp"_s + m_chain, false},
        {"hostile", u"/tmp/a\n (1) ← b"_s, u"a\ufffd (1) \ufffd b"_s + m_chain, false},
        {"unknown", {}, u"PID 4711"_s, false},
    };
    // clang-format on

    /// What the asker hears and what is recorded, where the first question has ended.
    void checkEnd(const QByteArray& outcome, const QByteArray& message, const QByteArray& lines)
    {
        const consent::Result result = m_clients[0].answer();
        QCOMPARE(result.granted, outcome == "granted");
        QVERIFY2(result.message.toUtf8().contains(message), qPrintable(result.message));
        QCOMPARE(recorded(), lines);
        QVERIFY(!m_desk || m_desk->questions().isEmpty());
        QVERIFY(!m_desk || outcomeName(m_desk->history()[0].outcome).toUtf8() == outcome);
    }

private Q_SLOTS:
    void init()
    {
        startDesk();
        m_history = path(u"data/history.jsonl"_s);
        m_place = m_desk->channelPath();
    }

    void questions_data() { test::addRows(m_endings); }
    void questions()
    {
        const auto& [tag, act, outcome, message, lines] = test::currentRow(m_endings);
        QVERIFY(ask() != 0);
        QCOMPARE(consent::encodeRequest(m_desk->questions().first().request),
                 consent::encodeRequest(harmless));
        act();
        QCOMPARE(m_ended->count(), 1);
        QCOMPARE(lastOutcome(), outcome);
        checkEnd(outcome, message, lines);
    }

    void noTwoOutcomesSoundAlike()
    {
        QSet<QString> messages;
        for (int i = 0; i <= int(Outcome::AskerGone); ++i) {
            messages.insert(replyMessage(Outcome(i)));
            QVERIFY(outcomeOfName(outcomeName(Outcome(i))) == Outcome(i));
        }
        QCOMPARE(messages.size(), int(Outcome::AskerGone) + 1);
    }

    void eachQuestionHasItsOwnClock()
    {
        const quint64 first = ask();
        pass(70s);
        QVERIFY(first < ask());
        pass(49s);
        QCOMPARE(m_desk->remaining(first).count(), 1000);
        QCOMPARE(m_desk->remaining(m_id).count(), 71000);
        pass(1s);
        QCOMPARE(m_desk->questions().size(), 1);
        QCOMPARE(m_desk->remaining(first).count(), 0);
        yes();
        QVERIFY(!m_clients[0].answer().granted && m_clients[1].answer().granted);
    }

    void lines_data() { test::addRows(m_lines); }
    void lines()
    {
        const auto& [tag, line, fault] = test::currentRow(m_lines);
        const QByteArray sent = QByteArray(line).replace('`', '"');
        if (fault.isEmpty())
            ask(sent), yes();
        else
            m_clients.emplace_back(sent);
        const QByteArray outcome = fault.isEmpty() ? "granted" : "malformed";
        checkEnd(outcome, fault, outcome + '+');
    }

    void pauses()
    {
        using Time = std::optional<std::chrono::seconds>;
        for (const Time& time : {Time(10min), Time()}) { // The latter until told otherwise.
            const QSignalSpy changes(m_desk.get(), &Desk::stateChanged);
            m_desk->pauseFor(time);
            QCOMPARE(m_desk->pausedUntil(), time ? m_clock.wall().addDuration(*time) : QDateTime());
            pass(time.value_or(0s) - 1s);
            QCOMPARE(AskingClient(harmless).answer().message, replyMessage(Outcome::Paused));
            QVERIFY(m_desk->state() == Desk::State::Paused);
            pass(time ? 1s : 24h);
            QCOMPARE(m_desk->isPaused(), !time);
            m_desk->resume();
            QVERIFY(m_desk->state() == Desk::State::Listening && changes.count() >= 2);
            QVERIFY(ask() != 0);
        }
    }

    void whatIsInTheChannelsPlace_data()
    {
        test::addRows(m_isFile
                          ? m_obstacles
                          : decltype(m_obstacles)(m_obstacles.begin(), m_obstacles.begin() + 3));
    }
    void whatIsInTheChannelsPlace()
    {
        const auto& [tag, prepare, problem] = test::currentRow(m_obstacles);
        QVERIFY(!m_isFile || QFile::rename(m_place, m_place + u'1'));
        m_desk->quit();
        prepare();
        Desk desk(m_clock, path(u"data"_s));
        QCOMPARE(desk.start(), problem.isEmpty());
        QVERIFY2(desk.problem().toUtf8().contains(problem), qPrintable(desk.problem()));
        QCOMPARE(desk.problem().contains(m_place), !problem.isEmpty());
        QCOMPARE(desk.otherDesk() != 0, problem.contains("PID"));
        QCOMPARE(desk.state() == Desk::State::Unavailable, !problem.isEmpty());
        QVERIFY(!m_isFile || QFileInfo::exists(m_place) || QFileInfo(m_place).isSymLink());
        if (m_isFile && problem.isEmpty())
            QCOMPARE(QFile::permissions(m_place) & 0x0fff, QFile::Permissions(0x0600));
    }

    void aLostSocketIsMadeAnew()
    {
        if (!m_isFile)
            QSKIP("A pipe is there as long as somebody listens.");
        QVERIFY(QFile::remove(m_place));
        QVERIFY(m_desk->state() == Desk::State::Unavailable);
        pass(10s);
        QVERIFY(m_desk->state() == Desk::State::Listening && ask() != 0);
    }

    void crowds()
    {
        for (int i = 0; i < 65; ++i)
            m_clients.emplace_back();
        const QString tooMany = replyMessage(Outcome::Malformed, u"同时发送的请求过多"_s);
        QCOMPARE(m_clients[0].answer().message, tooMany);
        for (int i = 0; i < 64; ++i)
            QVERIFY(ask() != 0);
        QCOMPARE(AskingClient(harmless).answer().message, replyMessage(Outcome::Crowded));
        QVERIFY(m_clients[2].isConnected() && m_clients[65].isConnected());

        const AskingClient another;
        AskingClient slow;
        QCOMPARE(m_clients[2].answer().message, tooMany); // It has made room.
        pass(5s - 1ms);
        QVERIFY(slow.isConnected());
        pass(1ms);
        QCOMPARE(slow.answer().message, replyMessage(Outcome::Malformed, u"请求未在 5 秒内送达"_s));
    }

    void askers_data() { test::addRows(m_askers); }
    void askers()
    {
        const auto& [tag, executable, chain, isOwnServer] = test::currentRow(m_askers);
        if (!executable.isEmpty())
            test::setAsker(executable, u"c\u202ede"_s);
        QVERIFY(ask() != 0);
        const Asker asker = m_desk->questions().first().asker;
        QCOMPARE(asker.chainText(), chain);
        QCOMPARE(asker.isOwnServer, isOwnServer);
        QVERIFY(asker.isKnown != executable.isEmpty() && !asker.executable.contains(u'\n'));
    }

    void historyOfDamagedFiles()
    {
        m_desk->quit();
        History history(path(u"data"_s));
        QVERIFY(history.record(granted(7)).ok);
        history.recordDelivery(7, false);
        QFile file(m_history);
        QVERIFY(file.open(QFile::Append));
        QVERIFY(!m_isFile || (file.permissions() & 0x0fff) == QFile::Permissions(0x0600));
        // The last line is cut off: who knows what it was to be. It lacks its end alone.
        file.write("\n{}\nnull\n\xff\n{\"outcome\":\"bought\"}\n{\"id\":8,\"delivered\":true}\n"
                   "{\"id\":9,\"outcome\":\"granted\"}");
        file.close();
        QCOMPARE(History(path(u"data"_s)).entries().size(), 1);
        QVERIFY(history.record(granted(10)).ok);
        History reread(path(u"data"_s));
        const QList<HistoryEntry> entries = reread.entries();
        QCOMPARE(entries.size(), 3);
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
        const QDir directory(path(u"data"_s), {}, QDir::Name, QDir::Files);
        QCOMPARE(directory.entryList().join(u' '),
                 u"history.1.jsonl history.2.jsonl history.3.jsonl history.jsonl history.lock"_s);
        for (const QFileInfo& file : directory.entryInfoList())
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

    /// What is typed each second after the question's arrival, a blank for nothing.
    void typing_data()
    {
        QTest::addColumn<QByteArray>("outcome");
        const auto add = [](const QByteArray& outcome, const QByteArrayList& typed) {
            for (const QByteArray& lines : typed)
                QTest::newRow(lines) << outcome;
        };
        add("granted", {" |y", " | | |y"});
        add("refused", {"y|n", " |", " |Y", " |yes", " |y ", " |yy", " |n", " |\xff", " |允许"});
        add({}, {"y"}); // Before the prompt.
    }
    void typing()
    {
        FakeTerminal terminal;
        TerminalDesk view(*m_desk, terminal);
        terminal.onLine("y"); // To no question at all.
        QVERIFY(ask() != 0 && ask() != 0);
        for (const QByteArray& line : QByteArray(QTest::currentDataTag()).split('|')) {
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
        QString& screen = terminal.screen;
        QVERIFY(screen.contains(m_place));
        test::setAsker(u"/tmp/"_s + QString(100, u'长'));
        terminal.onWrite = [this] { m_now += 5s; }; // Halted by Ctrl-S.
        QVERIFY(ask({u"format_disk"_s, u"标题"_s, u"概要\x1b[2J"_s,
                     u"┘\n请求方: x [y/N]"_s + QString(100, u'长') + QString(100, u'Ж'),
                     u"r\r"_s}) != 0);
        view.update();
        QVERIFY(!screen.contains(u'\x1b') && !screen.contains(u'\r') &&
                !screen.contains(u"[y/N] "));
        for (const QString& line : screen.split(u'\n'))
            QVERIFY2(line.count(u'长') + line.count(u'Ж') <= 18, qPrintable(line));
        for (const QString& text :
             {u"│ 请求方: x [y/N]长"_s, riskOf(u"format_disk"_s).text, u"警告: 请求来自别的程序"_s})
            QVERIFY2(screen.contains(text), qPrintable(text));
        QStringList seconds;
        for (int left = 114; left > 0; --left) {
            m_now += 1s;
            screen.clear();
            view.update();
            if (screen.contains(u"[y/N]"))
                seconds.append(screen.section(u"剩余 "_s, 1).section(u' ', 0, 0));
        }
        QCOMPARE(seconds.join(u' '), u"114 60 30 10"_s);
        screen.clear();
        pass(1s);
        QVERIFY(screen.contains(u"→ 已拒绝 (超时)"));
        const QString text = historyText(m_desk->history(), 9, 40);
        QVERIFY(text.contains(u"│ 概要\ufffd[2J") && text.contains(u"│ format_disk"));
        for (const QString& line : text.split(u'\n'))
            QVERIFY2(line.count(u'长') <= 18, qPrintable(line));
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
        m_clients.emplace_back(harmless); // Nor are strangers heard on the channel.
        QCOMPARE(m_clients[0].answerLine(), QByteArray());
        QVERIFY(m_desk->questions().isEmpty() && m_desk->history().isEmpty());
    }
};

QTEST_GUILESS_MAIN(DeskTest)
#include "tst_desk.moc"
