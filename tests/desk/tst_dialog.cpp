// Tests of the desk's windows, on a screen that nobody sees: when an answer counts, and what is shown.
#include "desk/asking_client.h"
#include "desk/desk.h"
#include "desk/windows/main_window.h"
#include "desk/windows/pause_menu.h"
#include "desk/windows/plain_text_view.h"
#include "desk/windows/question_dialog.h"
#include "desk/windows/tray.h"
#include "fake/fake_platform.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

using namespace korvane;
using namespace korvane::desk;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using test::AskingClient;
using test::harmless;

class DialogTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<Desk> m_desk;
    std::unique_ptr<QuestionDialog> m_dialog;
    std::unique_ptr<AskingClient> m_client;
    std::unique_ptr<QSignalSpy> m_ended;
    std::chrono::milliseconds m_now{};

    QPushButton* allowButton() { return m_dialog->findChildren<QPushButton*>().value(0); }
    QPushButton* refuseButton() { return m_dialog->findChildren<QPushButton*>().value(1); }
    PlainTextView* detail()
    {
        return m_dialog->findChild<QGroupBox*>()->findChildren<PlainTextView*>().value(2);
    }

    void pass(std::chrono::milliseconds time)
    {
        m_now += time;
        m_desk->tick();
        m_dialog->refresh();
    }

    /// Has the dialog seen, as long as it takes.
    void read()
    {
        QVERIFY(QTest::qWaitForWindowActive(m_dialog.get()));
        m_dialog->repaint();
        m_dialog->refresh();
        pass(1s);
        QVERIFY(allowButton()->isEnabled());
    }

    void ask(AskingClient& client, const consent::Request& request = harmless)
    {
        const qsizetype before = m_desk->questions().size();
        client.ask(request);
        QVERIFY(QTest::qWaitFor([&] { return m_desk->questions().size() > before; }));
    }

    void loseActivation()
    {
        QWidget other;
        other.show();
        other.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&other));
        other.close();
        m_dialog->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_dialog.get()));
    }

    static void sendKey(QWidget* widget, Qt::Key key, bool isHeld)
    {
        QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, {}, isHeld);
        QCoreApplication::sendEvent(widget, &press);
        QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier, {}, isHeld);
        QCoreApplication::sendEvent(widget, &release);
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
        const auto clock = [this] { return m_now; };
        m_desk = std::make_unique<Desk>(Clock{clock, [] { return QDateTime::currentDateTime(); }},
                                        m_directory->filePath(u"data"_s));
        QVERIFY2(m_desk->start(), qPrintable(m_desk->problem()));
        m_dialog = std::make_unique<QuestionDialog>(*m_desk, clock);
        m_ended = std::make_unique<QSignalSpy>(m_desk.get(), &Desk::questionEnded);
        QVERIFY(!m_dialog->isVisible());
        m_client = std::make_unique<AskingClient>();
        ask(*m_client);
        QVERIFY(QTest::qWaitForWindowActive(m_dialog.get()));
        m_dialog->repaint();
        m_dialog->refresh();
        QCOMPARE(QApplication::focusWidget(), refuseButton());
    }
    void cleanup()
    {
        m_dialog.reset();
        m_desk.reset();
        m_client.reset();
    }

    // clang-format off
    void answers_data()
    {
        using Act = std::function<void()>;
        QTest::addColumn<Act>("act");
        QTest::addColumn<QString>("outcome"); // Empty where the question stays.
        const auto row = [](const char* tag, const Act& act, const QString& outcome) { QTest::newRow(tag) << act << outcome; };
        const QString none;
        const QString granted = u"granted"_s;
        const QString refused = u"refused"_s;
        const auto type = [this](Qt::Key key) { QTest::keyClick(QApplication::focusWidget(), key); };
        const auto focusAllow = [this] { read(), allowButton()->setFocus(); };
        const auto click = [](QPushButton* button) { QTest::mouseClick(button, Qt::LeftButton); };

        for (const Qt::Key key : {Qt::Key_Return, Qt::Key_Enter, Qt::Key_Space, Qt::Key_Escape}) {
            const QByteArray name = QKeySequence(key).toString().toLatin1();
            const auto add = [&](const char* when, const Act& act, const QString& outcome) { row(QByteArray(name + when), act, outcome); };
            add(" at once", [=] { type(key); }, none);
            add(" before the second is over", [=, this] { pass(999ms), type(key); }, none);
            add(" after it", [=, this] { read(), type(key); }, refused);
            add(" on Allow", [=, this] { focusAllow(), type(key); }, key == Qt::Key_Escape ? refused : granted);
            add(" held, on Allow", [=, this] { focusAllow(), sendKey(allowButton(), key, true); }, none);
            add(" held, on Refuse", [=, this] { read(), sendKey(refuseButton(), key, true); }, none);
            add(" held, on the detail", [=, this] { read(), sendKey(detail(), key, true); }, none);
            add(" after the activation was lost", [=, this] { focusAllow(), loseActivation(), type(key); }, none);
        }
        row("Enter on the detail", [=, this] { read(), detail()->setFocus(), type(Qt::Key_Return); }, refused);
        row("pressed early, released late", [this] {
            QTest::keyPress(refuseButton(), Qt::Key_Space), QTest::mousePress(allowButton(), Qt::LeftButton);
            read();
            QTest::keyRelease(refuseButton(), Qt::Key_Space), QTest::mouseRelease(allowButton(), Qt::LeftButton);
        }, none);
        row("early click on Allow", [=, this] { pass(999ms), click(allowButton()); }, none);
        row("early click on Refuse", [=, this] { pass(999ms), click(refuseButton()); }, none);
        row("early press of an assistant", [this] { allowButton()->click(), refuseButton()->click(); }, none);
        row("click on Allow", [=, this] { read(), click(allowButton()); }, granted);
        row("click on Refuse", [=, this] { read(), click(refuseButton()); }, refused);
        row("click on Allow, activation lost", [=, this] { read(), loseActivation(), pass(999ms), click(allowButton()); }, none);
        row("click on Allow, activation back", [=, this] { read(), loseActivation(), read(), click(allowButton()); }, granted);
        row("click on Allow, moved", [=, this] { read(), m_dialog->move(m_dialog->pos() + QPoint(9, 9)), click(allowButton()); }, none);
        row("click on Allow, resized", [=, this] { read(), m_dialog->resize(m_dialog->size() + QSize(9, 9)), click(allowButton()); }, none);
        row("click on Allow, minimised", [=, this] { read(), m_dialog->showMinimized(), m_dialog->refresh(), click(allowButton()); }, none);
        row("closed", [this] { m_dialog->close(); }, refused);
        row("time-out", [this] { pass(120s); }, u"timedOut"_s);
        row("asker gone", [this] { m_client->leave(), m_ended->wait(); }, u"askerGone"_s);
        row("pause", [this] { m_desk->pauseFor({}); }, u"paused"_s);
        row("quit", [this] { m_desk->quit(); }, u"quitting"_s);
    }
    // clang-format on
    void answers()
    {
        QFETCH(std::function<void()>, act);
        QFETCH(QString, outcome);
        act();
        QCOMPARE(m_ended->count(), outcome.isEmpty() ? 0 : 1);
        QCOMPARE(m_dialog->isVisible(), outcome.isEmpty());
        if (!outcome.isEmpty())
            QCOMPARE(outcomeName(m_ended->last().at(1).value<Outcome>()), outcome);
    }

    void oneQuestionAfterTheOther()
    {
        AskingClient second;
        ask(second, {u"clean_junk"_s, {}, u"second"_s, {}, {}});
        const auto shows = [this](const QString& text) {
            const auto labels = m_dialog->findChildren<QLabel*>();
            return std::any_of(labels.begin(), labels.end(), [&](const QLabel* label) {
                return label->isVisible() && label->text() == text;
            });
        };
        QVERIFY(shows(u"第 1 个, 共 2 个"_s));
        QCOMPARE(allowButton()->text(), u"允许结束进程"_s);
        pass(20s);
        read();
        QTest::mousePress(allowButton(), Qt::LeftButton);
        m_client->leave();
        QVERIFY(m_ended->wait());
        QCOMPARE(allowButton()->text(), u"允许移到回收站"_s);
        QVERIFY(!shows(u"第 1 个, 共 2 个"_s) && shows(u"剩余 99 秒, 之后自动拒绝"_s));
        QVERIFY(!detail()->isVisible());
        QVERIFY(!allowButton()->isEnabled());
        read();
        QTest::mouseMove(allowButton(), {3, 3}); // The button is held since the first question.
        QTest::mouseRelease(allowButton(), Qt::LeftButton);
        QCOMPARE(m_desk->questions().size(), 1);
        QTest::mouseClick(allowButton(), Qt::LeftButton);
        QVERIFY(second.answer().granted);
        QVERIFY(!m_dialog->isVisible());
    }

    void hostileWords()
    {
        m_desk->refuse(m_desk->questions().first().id);
        const QString hostile =
            u"<b>x</b> <a href=\"file:/\">y</a>\u202e\x1b[2J\u200b\n\n"_s + QString(5000, u'x');
        const Tray tray(*m_desk);
        AskingClient client;
        ask(client, {u"format_disk"_s, hostile, hostile, QString(300, u'\n'), hostile});
        const QPointer<QObject>& notification = fake::platform().notification;
        QCOMPARE(notification->objectName(),
                 u"授权请求|AI 想更改本机, 正在等您答复: 允许未知操作?"_s);
        const QString shown =
            u"<b>x</b> <a href=\"file:/\">y</a>\ufffd\ufffd[2J\ufffd\n\n"_s + QString(5000, u'x');
        int copies = 0;
        for (const PlainTextView* view : m_dialog->findChildren<PlainTextView*>()) {
            QVERIFY(view->isReadOnly() &&
                    !(view->textInteractionFlags() &
                      (Qt::LinksAccessibleByMouse | Qt::LinksAccessibleByKeyboard)));
            copies += view->toPlainText() == shown ? 1 : 0;
            const QWidget* const frame = view->parentWidget();
            QVERIFY(view->toPlainText() != shown || qobject_cast<const QGroupBox*>(frame));
        }
        QCOMPARE(copies, 3);
        QCOMPARE(detail()->height(), detail()->sizeHint().height());
        QVERIFY(detail()->height() < 14 * detail()->fontMetrics().lineSpacing());
        for (const QLabel* label : m_dialog->findChildren<QLabel*>())
            QVERIFY(label->textFormat() == Qt::PlainText && !label->text().contains(u'x'));
        QCOMPARE(allowButton()->text(), u"允许未知操作"_s);
        m_desk->refuseAll(Outcome::SessionEnd);
        QVERIFY(client.answer().message.contains(u"会话已结束"_s) && !notification);
    }

    void theCountdownIsSaid()
    {
        const QSignalSpy said(m_dialog.get(), &QuestionDialog::announced);
        for (int second = 0; second < 119; ++second)
            pass(1s);
        QCOMPARE(said.size(), 3);
        for (int i = 0; i < 3; ++i)
            QVERIFY(said[i][0].toString().contains(QStringList{u"60"_s, u"30"_s, u"10"_s}[i]));
    }

    void theMainWindow()
    {
        MainWindow window(*m_desk);
        window.bringUp();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        auto* const table = window.findChild<QTableView*>();
        const auto rows = [&] { return table->model()->rowCount(); };
        QVERIFY(!table->isVisible()); // Instead: what will be here.
        m_desk->refuse(m_desk->questions().first().id);
        QTRY_VERIFY(table->isVisible());
        AskingClient garbled("{}");
        QTRY_COMPARE(rows(), 2);
        QCOMPARE(table->currentIndex().row(), 0); // As before the newest.
        QCOMPARE(table->model()->index(1, 3).data().toString(), harmless.summary);
        const auto filter = [&](const QString& text) {
            return window.findChild<QLineEdit*>()->setText(text), rows();
        };
        QCOMPARE(filter(u"格式有误"_s), 1);
        QCOMPARE(filter(u"KILL"_s), 1);
        table->selectRow(0);
        table->setFocus();
        QTest::keySequence(table, QKeySequence::Copy);
        QVERIFY(QApplication::clipboard()->text().contains(harmless.detail));
        QCOMPARE(filter(u"nothing"_s), 0);
        m_desk->historyChanged();
        QTest::qWait(150);

        auto* const menu = window.findChild<PauseMenu*>();
        menu->actions().last()->trigger();
        QVERIFY(m_desk->isPaused() && window.findChild<QLabel*>()->text().contains(u"已暂停"));
        menu->actions().first()->trigger();
        QVERIFY(!m_desk->isPaused());

        auto* const autostart = window.findChild<QCheckBox*>();
        QVERIFY(!autostart->isChecked());
        autostart->click();
        QVERIFY(autostart->isChecked() && fake::platform().startsWithSession);

        window.close(); // There is no tray here.
        QVERIFY(window.isVisible() && window.isMinimized());
        for (const QWidget* widget : window.findChildren<QWidget*>()) {
            if ((widget->focusPolicy() & Qt::TabFocus) != 0 && widget->isVisible())
                QVERIFY2(!QAccessible::queryAccessibleInterface(const_cast<QWidget*>(widget))
                              ->text(QAccessible::Name)
                              .isEmpty(),
                         widget->metaObject()->className());
        }
    }
};

QTEST_MAIN(DialogTest)

#include "tst_dialog.moc"
