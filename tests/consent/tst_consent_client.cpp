// Tests of the consent client against a desktop program played by a local server.
#include "consent/consent_exchange.h"
#include "consent/shown_text.h"
#include "fake/fake_platform.h"
#include "support/fake_desktop.h"
#include "support/file_tree.h"

#include <QElapsedTimer>

#include <array>
#include <memory>
#include <optional>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

const QString timedOut = u"0 用户授权超时 — 已默认拒绝。"_s;
const QString notRunning = u"0 Korvane 主程序未运行 — 写操作必须经主程序弹窗授权。"
                           "请先启动 Korvane 桌面程序, 再让 AI 执行此操作。"_s;
const QString notSent = u"0 授权请求发送失败。"_s;
const QByteArray granted = "{\"granted\":true}\n";

} // namespace

class ConsentClientTest : public QObject
{
    Q_OBJECT

    std::optional<test::FakeDesktop> m_desktop;
    fake::Platform& m_script = fake::platform();
    consent::ExchangeLimits m_limits;
    QElapsedTimer m_timer;

    /// Whether it was granted, and the message.
    QString ask(const QString& reason = {})
    {
        m_timer.start();
        const auto result = consent::exchange({{}, {}, {}, {}, reason}, m_limits);
        return QString::number(int(result.granted)) + u' ' + result.message;
    }

private Q_SLOTS:
    void init()
    {
        fake::reset();
        m_limits = {.answering = std::chrono::seconds(5)};
        m_desktop.emplace();
    }

    void answers()
    {
        const auto check = [this](QByteArray pieces, const QString& expected, bool closes = false) {
            m_desktop->setAnswer({pieces.replace('`', '"').split('|'), closes});
            QVERIFY2(ask() == expected, pieces.left(100).constData());
            QVERIFY(m_timer.elapsed() < 4000); // Never by waiting the limit out.
            QCOMPARE(m_desktop->takeReceived().size(), 1);
        };
        check("{`message`:`好 %1`,`granted`:true,`x`:[]}\r\n", u"1 好 %1"_s, true);
        check("{`granted`:false,`message`:` 不\\n行 `}\n", u"0  不\n行 "_s);
        check("{`granted`:true,`message`:[`x`]}\n", u"1 "_s);
        check("{`granted`:true}\n{`granted`:false}\n", u"1 "_s);
        check("{`message`:`a`}\n{`granted`:true}\n", u"0 a"_s);
        check("{`gran|ted`:true,`message`:`\xe5|\xa5\xbd`}|\n", u"1 好"_s);
        for (const char* line :
             {"{`granted`:1}", "{`granted`:`true`}", "{`granted`:[true]}", "[{`granted`:true}]",
              "[true]", "true", "", "{`granted`:true", "{`granted`:true}x", "\xff\xfe{}"})
            check(QByteArray(line) + '\n', u"0 "_s);
        check(QByteArray(100000, '[') + '\n', u"0 "_s);
        check("", timedOut, true); // closed without an answer, or before the end of its line
        check("{`granted`:true}", timedOut, true);
        const QByteArray longest = QByteArray((1 << 20) - 17, ' ') + "{`granted`:true}";
        check(QByteArray(3 << 20, ' ') + longest + '\n', timedOut);
        for (const char* end : {"\n", "|\n{|}"})
            check(longest + end, u"1 "_s);
        for (const char* end : {"\n", "|\n"})
            check(' ' + longest + end, timedOut);
    }

    void limitIsOfEachPiece()
    {
        QList<QByteArray> pieces;
        for (const char byte : granted)
            pieces.append(QByteArray(1, byte));
        m_desktop->setAnswer({pieces, false, 50});
        m_limits.answering = std::chrono::milliseconds(600);
        QCOMPARE(ask(), u"1 "_s);
        QVERIFY(m_timer.elapsed() > 700);
        m_desktop->setAnswer({{granted.chopped(1)}});
        QCOMPARE(ask(), timedOut);
        QVERIFY(m_timer.elapsed() > 595);
    }

    void strangersLearnNothing()
    {
        static int warnings = 0;
        const auto previous = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext&, const QString& message) {
                warnings += int(type == QtWarningMsg && message.startsWith(u"[Consent]"));
            });
        m_script.peerMayAnswer = [] { return false; };
        m_desktop->setAnswer({{granted}});
        const QStringList results{ask(), ask()};
        qInstallMessageHandler(previous);
        QCOMPARE(results, QStringList(2, notRunning));
        QCOMPARE(m_desktop->takeReceived(), QList<QByteArray>(2));
        QCOMPARE(warnings, 1);
    }

    void listenersThatAreNoDesktopProgram()
    {
        m_desktop.reset();
        QCOMPARE(ask(), notRunning); // Nobody at all, and no waiting for somebody.
        QVERIFY(m_timer.elapsed() < 1000);

        QLocalServer server;
        QVERIFY(server.listen(test::consentServer)); // The system accepts, nobody reads.
        m_limits.sending = std::chrono::milliseconds(200);
        QCOMPARE(ask(QString(4 << 20, u'x')), notSent);
        QVERIFY(m_timer.elapsed() >= 195);
        QVERIFY(server.waitForNewConnection(0));
        delete server.nextPendingConnection();

        QByteArray answer; // Before the request; with none, the connection is closed.
        m_script.peerMayAnswer = [&server, &answer] {
            const bool isConnected = server.waitForNewConnection(1000);
            std::unique_ptr<QLocalSocket> closing(server.nextPendingConnection());
            if (!isConnected || answer.isEmpty())
                return isConnected;
            QLocalSocket* const socket = closing.release(); // the server deletes it
            return socket->write(answer) > 0 && socket->flush();
        };
        QCOMPARE(ask(), notSent);
        answer = granted;
        QCOMPARE(ask(), u"1 "_s);
    }

    void shownTexts()
    {
        const QString hidden =
            u"\x01\t\n\r\x1b\x1f\x7f\u0080\u0085\u009f"              // controls
            "\u00a0\u1680\u2000\u200a\u2028\u2029\u202f\u205f\u3000" // white space
            "\u00ad\u0600\u061c\u06dd\u070f\u180e\u200b\u200d\u200e\u200f\u202a\u202e" // formats
            "\u2060\u2064\u2066\u2069\u206f\ufeff\ufff9\ufffb\U000110bd\U00013430\U00013439"
            "\U0001343f\U0001bca0\U0001d173\U000e0001"
            "\u034f\u115f\u1160\u17b4\u17b5\u180b\u180d\u180f\u2065\u3164\ufe00\ufe0f" // not seen
            "\uffa0\ufff0\ufff8\U000e0000\U000e0041\U000e007f\U000e0100\U000e01ef\U000e0fff"
            "\ue000\uf8ff\U000f0000\U0010fffd"_s + // private
            QChar(0);
        for (const uint code : hidden.toUcs4()) {
            const QString one = QStringView(QChar::fromUcs4(code)).toString();
            // It neither spares its neighbour, nor is spared as the half of a pair.
            QCOMPARE(consent::shownText(u"%1a"_s + one + one), u"%1a\ufffd\ufffd"_s);
        }
        const QString longest = u"🚀"_s.repeated(150) + u"x"_s.repeated(150);
        for (
            const QString& fit :
            {QString(), longest,
             u" ~%1 中文、“”—…é e\u0301 ❤😀👍🏽 العربية עברית ไทย "_s,
             u"\u0378\ufdd0\uffff\U0001fbff\U000e1000\U0003ffff"_s,    // unassigned
             u"\u2010\u2027\u2070\u3163\ufdff\ufe10\uffa1\ufffc"_s}) { // beside the hidden ones
            QCOMPARE(consent::shownText(fit), fit);
            QCOMPARE(consent::quotedText(fit), fit);
        }
        const QString quotes = u"「a」『」』"_s;
        QCOMPARE(consent::shownText(quotes), quotes);
        QCOMPARE(consent::quotedText(quotes), u"\ufffda\ufffd『\ufffd』"_s);
        QCOMPARE(consent::shownText(u"a b  c   "_s), u"a b \ufffdc \ufffd\ufffd"_s);
        QCOMPARE(consent::shownText(u" \t  \u3000 "_s), u" \ufffd \ufffd\ufffd "_s);
        QCOMPARE(consent::shownLine(u"  - a  b"_s), u"  - a \ufffdb"_s);
        QCOMPARE(consent::shownLine(QString(6, u' ')), u"     \ufffd"_s);
        const QString none = u"\ufffc\ufdd0\ufdef\uffff\U0003fffe"_s;
        QCOMPARE(consent::shownLine(none), QString(5, u'\ufffd'));
        const QChar high(0xd83d);
        const QChar low(0xde80);
        QCOMPARE(consent::quotedText(QString(low) + high + high + low + high),
                 u"\ufffd\ufffd🚀\ufffd"_s);
        QCOMPARE(consent::shownText(longest + u'「'), longest + u'「');
        for (const int more : {1, 9999}) {
            QCOMPARE(consent::quotedText(u"🚀"_s.repeated(150 + more) + u"「"_s.repeated(150)),
                     u"🚀"_s.repeated(150) + u'…' + u"\ufffd"_s.repeated(149));
        }
    }

    void whoTakesNobodyIn()
    {
        if (!test::hasPosixFiles())
            QSKIP("this system's queue of those who ask has another length");
        m_desktop.reset();
        QLocalServer server;
        server.setListenBacklogSize(1);
        QVERIFY(server.listen(test::consentServer));
        std::array<QLocalSocket, 2> crowd;
        for (QLocalSocket& socket : crowd) {
            socket.connectToServer(test::consentServer);
            QVERIFY(socket.waitForConnected());
        }
        QCOMPARE(ask(), notRunning);
        QVERIFY(m_timer.elapsed() >= 2995 && m_timer.elapsed() < 10'000);
    }
};

QTEST_GUILESS_MAIN(ConsentClientTest)
#include "tst_consent_client.moc"
