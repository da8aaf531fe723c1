// Tests of the desk's windows, on a screen that nobody sees: when an answer counts, what is shown.
#include "desk/desk_suite.h"
#include "desk/windows.h"
#include "desk/windows/history_model.h"
#include "desk/windows/main_window.h"
#include "desk/windows/pause_menu.h"
#include "desk/windows/plain_text_view.h"
#include "desk/windows/question_dialog.h"
#include "desk/windows/readable_style.h"
#include "desk/windows/tray.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QTableView>
#include <QTextBlock>

using namespace korvane;
using namespace korvane::desk;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

class DialogTest : public test::DeskSuite
{
    Q_OBJECT

    std::unique_ptr<QuestionDialog> m_dialog;
    QPushButton* m_allow = nullptr;
    QPushButton* m_refuse = nullptr;
    PlainTextView* m_detail = nullptr;

    void pass(std::chrono::milliseconds time)
    {
        DeskSuite::pass(time);
        m_dialog->refresh();
    }

    void see()
    {
        QVERIFY(QTest::qWaitForWindowActive(m_dialog.get()));
        m_dialog->repaint();
        m_dialog->refresh();
    }

    /// Has the dialog seen, as long as it takes.
    void read()
    {
        see();
        pass(1s);
        QVERIFY(m_allow->isEnabled());
    }

    void loseActivation()
    {
        QWidget other;
        other.show();
        other.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&other));
        m_dialog->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_dialog.get()));
    }

    static void type(Qt::Key key) { QTest::keyClick(QApplication::focusWidget(), key); }

    static void hold(QWidget* widget, Qt::Key key)
    {
        for (const auto type : {QEvent::KeyPress, QEvent::KeyRelease}) {
            QKeyEvent event(type, key, Qt::NoModifier, {}, true);
            QCoreApplication::sendEvent(widget, &event);
        }
    }

    static void click(QWidget* button) { QTest::mouseClick(button, Qt::LeftButton); }

    /// The texts that the dialog's labels show.
    QStringList labels() const
    {
        QStringList texts;
        for (const QLabel* label : m_dialog->findChildren<QLabel*>())
            texts.append(label->isVisible() ? label->text() : QString());
        return texts;
    }

private Q_SLOTS:
    void init()
    {
        m_dialog.reset();
        startDesk();
        m_dialog = std::make_unique<QuestionDialog>(*m_desk, m_clock.steady);
        m_allow = m_dialog->findChildren<QPushButton*>().value(0);
        m_refuse = m_dialog->findChildren<QPushButton*>().value(1);
        m_detail = m_dialog->findChild<QGroupBox*>()->findChildren<PlainTextView*>().value(2);
        QVERIFY(!m_dialog->isVisible());
        QVERIFY(ask() != 0);
        see();
        QCOMPARE(QApplication::focusWidget(), m_refuse);
    }

    /// The outcome is empty where the question stays.
    void answers_data()
    {
        using Act = std::function<void()>;
        QTest::addColumn<Act>("act");
        QTest::addColumn<QByteArray>("outcome");
        const auto row = [](const QByteArray& tag, const QByteArray& outcome, const Act& act) {
            QTest::newRow(tag) << act << outcome;
        };
        const auto focusAllow = [this] { read(), m_allow->setFocus(); };
        // clang-format off
        for (const Qt::Key k : {Qt::Key_Return, Qt::Key_Enter, Qt::Key_Space, Qt::Key_Escape}) {
            const QByteArray key = QKeySequence(k).toString().toLatin1();
            const QByteArray onAllow = k == Qt::Key_Escape ? "refused" : "granted";
            row(key + " pressed early", "", [=, this] {
                QTest::keyPress(m_refuse, k), read(), QTest::keyRelease(m_refuse, k);
            });
            row(key + " at once", "", [=] { type(k); });
            row(key + " before the second is over", "", [=, this] { pass(999ms), type(k); });
            row(key + " after it", "refused", [=, this] { read(), type(k); });
            row(key + " on Allow", onAllow, [=] { focusAllow(), type(k); });
            row(key + " held, on Allow", "", [=, this] { focusAllow(), hold(m_allow, k); });
            row(key + " held, on Refuse", "", [=, this] { read(), hold(m_refuse, k); });
            row(key + " held, on the detail", "", [=, this] { read(), hold(m_detail, k); });
            row(key + " after another window", "", [=, this] { focusAllow(), loseActivation(), type(k); });
        }
        for (const auto button : {&DialogTest::m_allow, &DialogTest::m_refuse})
            row("button pressed early", "", [=, this] {
                QTest::mousePress(this->*button, Qt::LeftButton);
                read();
                QTest::mouseRelease(this->*button, Qt::LeftButton);
            });
        row("Enter on the detail", "refused", [this] { read(), m_detail->setFocus(), type(Qt::Key_Return); });
        row("early click on Allow", "", [this] { pass(999ms), click(m_allow); });
        row("early click on Refuse", "", [this] { pass(999ms), click(m_refuse); });
        row("early press of an assistant", "", [this] { m_allow->click(), m_refuse->click(); });
        row("click on Allow", "granted", [this] { read(), click(m_allow); });
        row("click on Refuse", "refused", [this] { read(), click(m_refuse); });
        row("click after another window", "", [this] { read(), loseActivation(), pass(999ms), click(m_allow); });
        row("click a second after it", "granted", [this] { read(), loseActivation(), read(), click(m_allow); });
        row("click after a move", "", [this] { read(), m_dialog->move(99, 99), click(m_allow); });
        row("click after a resize", "", [this] { read(), m_dialog->resize(999, 599), click(m_allow); });
        row("click when minimised", "", [this] { read(), m_dialog->showMinimized(), pass({}), click(m_allow); });
        row("closed", "refused", [this] { m_dialog->close(); });
        row("time-out", "timedOut", [this] { pass(120s); });
        row("asker gone", "askerGone", [this] { m_clients[0].leave(), m_ended->wait(); });
        row("pause", "paused", [this] { m_desk->pauseFor({}); });
        row("quit", "quitting", [this] { m_desk->quit(); });
        // clang-format on
    }
    void answers()
    {
        QFETCH(std::function<void()>, act);
        act();
        QTEST(lastOutcome(), "outcome");
        QVERIFY(m_ended->count() <= 1);
        QCOMPARE(m_dialog->isVisible(), m_ended->isEmpty());
    }

    void oneQuestionAfterTheOther()
    {
        QVERIFY(ask({u"clean_junk"_s, {}, u"second"_s, {}, {}}) != 0);
        QVERIFY(labels().contains(u"第 1 个, 共 2 个"_s));
        QCOMPARE(m_allow->text(), u"允许结束进程"_s);
        pass(20s);
        read();
        QTest::mousePress(m_allow, Qt::LeftButton);
        m_clients[0].leave();
        QVERIFY(m_ended->wait());
        QCOMPARE(m_allow->text(), u"允许移到回收站"_s);
        QVERIFY(labels().contains(u"剩余 99 秒, 之后自动拒绝"_s));
        QVERIFY(labels().filter(u"共"_s).isEmpty());
        QVERIFY(!m_detail->isVisible() && !m_allow->isEnabled());
        read();
        QTest::mouseMove(m_allow, {3, 3}); // The button is held since the first question.
        QTest::mouseRelease(m_allow, Qt::LeftButton);
        QCOMPARE(m_desk->questions().size(), 1);
        click(m_allow);
        QVERIFY(m_clients[1].answer().granted);
        QVERIFY(!m_dialog->isVisible());
    }

    void hostileWords()
    {
        no();
        const QString hostile =
            u"<b>x</b> <a href=\"file:/\">y</a>\u202e\x1b[2J\u200b\ufdd0\ufffc\n\n"_s;
        const QString shown =
            u"<b>x</b> <a href=\"file:/\">y</a>\ufffd\ufffd[2J\ufffd\ufffd\ufffd\n\n"_s;
        const QString tail(20'000, u'x');
        const Tray tray(*m_desk);
        QVERIFY(ask({u"format_disk"_s, hostile + tail, hostile + tail, QString(300, u'\n'),
                     hostile + tail}) != 0);
        const QPointer<QObject>& notification = fake::platform().notification;
        QCOMPARE(notification->objectName(),
                 u"授权请求|AI 想更改本机, 正在等您答复: 允许未知操作?"_s);
        int copies = 0;
        for (const PlainTextView* view : m_dialog->findChildren<PlainTextView*>()) {
            constexpr auto byMouseOrKey =
                Qt::LinksAccessibleByMouse | Qt::LinksAccessibleByKeyboard;
            QVERIFY(view->isReadOnly() && !(view->textInteractionFlags() & byMouseOrKey));
            const auto joined = [](QString text) { return text.remove(u'\n'); };
            const bool isHostile = joined(view->toPlainText()) == joined(shown + tail);
            for (auto line = view->document()->begin(); line.isValid(); line = line.next())
                QVERIFY(line.length() < 5000); // Longer ones take seconds to lay out.
            copies += isHostile ? 1 : 0;
            QVERIFY(!isHostile || qobject_cast<const QGroupBox*>(view->parentWidget()) != nullptr);
        }
        QCOMPARE(copies, 3);
        QCOMPARE(m_detail->height(), m_detail->sizeHint().height());
        QVERIFY(m_detail->height() < 14 * m_detail->fontMetrics().lineSpacing());
        for (const QLabel* label : m_dialog->findChildren<QLabel*>())
            QVERIFY(label->textFormat() == Qt::PlainText && !label->text().contains(u'x'));
        QCOMPARE(m_allow->text(), u"允许未知操作"_s);
        const quint64 id = m_id;
        m_desk->refuseAll(Outcome::SessionEnd);
        QVERIFY(m_clients.back().answer().message.contains(u"会话已结束"_s) && !notification);
        HistoryModel model;
        model.show(m_desk->history());
        const QModelIndex cell = model.index(model.rowOf(id), HistoryModel::Summary);
        QCOMPARE(cell.data().toString().left(20), shown.left(20));
        QVERIFY(cell.data().toString().size() < 1000);
        QVERIFY(cell.data(HistoryModel::WholeTextRole).toString().contains(tail)); // To be found.
    }

    void theCountdownIsSaid()
    {
        const QSignalSpy said(m_dialog.get(), &QuestionDialog::announced);
        for (int second = 0; second < 119; ++second)
            pass(1s);
        QStringList seconds;
        for (const QList<QVariant>& arguments : said)
            seconds.append(arguments[0].toString().section(u' ', 1, 1));
        QCOMPARE(seconds.join(u' '), u"60 30 10"_s);
    }

    void theMainWindow()
    {
        MainWindow window(*m_desk);
        window.bringUp();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        auto* const table = window.findChild<QTableView*>();
        const QAbstractItemModel& model = *table->model();
        QVERIFY(!table->isVisible()); // Instead: what will be here.
        no();
        QTRY_VERIFY(table->isVisible());
        m_clients.emplace_back("{}");
        QTRY_COMPARE(model.rowCount(), 2);
        QCOMPARE(table->currentIndex().row(), 0); // As before the newest.
        QCOMPARE(model.index(1, 3).data().toString(), test::harmless.summary);
        const auto filter = [&](const QString& text) {
            return window.findChild<QLineEdit*>()->setText(text), model.rowCount();
        };
        QCOMPARE(filter(u"格式有误"_s), 1);
        QCOMPARE(filter(u"KILL"_s), 1);
        table->selectRow(0);
        table->setFocus();
        QTest::keySequence(table, QKeySequence::Copy);
        QVERIFY(QApplication::clipboard()->text().contains(test::harmless.detail));
        QCOMPARE(filter(u"nothing"_s), 0);
        QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
        m_desk->historyChanged();
        QVERIFY(resets.wait());
        QCOMPARE(filter({}), 2);

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
        for (QWidget* widget : window.findChildren<QWidget*>()) {
            if ((widget->focusPolicy() & Qt::TabFocus) == 0 || !widget->isVisible())
                continue;
            const QAccessibleInterface* const read = QAccessible::queryAccessibleInterface(widget);
            QVERIFY2(!read->text(QAccessible::Name).isEmpty(), widget->metaObject()->className());
        }
    }

    /// Every text can be read, whatever colours the system chose.
    void contrasts()
    {
        QCOMPARE(contrastOf(Qt::black, Qt::white), 21.0);
        QPalette pale; // A dark text on a dark choice.
        pale.setColor(QPalette::HighlightedText, Qt::black);
        pale.setColor(QPalette::Highlight, QColor(90, 90, 90));
        const QList<std::pair<QPalette::ColorRole, QPalette::ColorRole>> texts{
            {QPalette::WindowText, QPalette::Window},
            {QPalette::Text, QPalette::Base},
            {QPalette::ButtonText, QPalette::Button},
            {QPalette::ToolTipText, QPalette::ToolTipBase},
            {QPalette::PlaceholderText, QPalette::Base},
            {QPalette::HighlightedText, QPalette::Highlight},
        };
        for (QPalette palette : {QApplication::style()->standardPalette(), pale,
                                 QPalette(QColor(239, 239, 239), QColor(239, 239, 239)),
                                 QPalette(QColor(45, 45, 45), QColor(35, 35, 35))}) {
            QApplication::style()->polish(palette);
            for (const auto group : {QPalette::Active, QPalette::Inactive}) {
                for (const auto& [text, around] : texts) {
                    const QColor color = palette.color(group, text);
                    const double contrast = contrastOf(color, palette.color(group, around));
                    QVERIFY2(color.alpha() == 255 && contrast >= ReadableStyle::leastContrast,
                             qPrintable(color.name() + u' ' + QString::number(contrast)));
                }
            }
        }
    }
};

int main(int argc, char* argv[])
{
    const auto application = makeWindowApplication(argc, argv);
    DialogTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_dialog.moc"
