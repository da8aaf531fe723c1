// What the dialog shows, and when an answer counts.
#include "desk/windows/question_dialog.h"

#include "desk/risk.h"
#include "desk/windows/plain_text_view.h"

#include <QAccessible>
#include <QApplication>
#include <QGridLayout>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

#include <algorithm>
#include <array>
#include <utility>

namespace korvane::desk {

namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr milliseconds refreshTime = 100ms;

/// The remaining times that a screen reader is told of.
constexpr std::array<milliseconds, 3> spokenTimes{60s, 30s, 10s};

constexpr int linesOfAsker = 2;
constexpr int linesOfTitle = 2;
constexpr int linesOfSummary = 4;
constexpr int linesOfDetail = 12;
constexpr int linesOfReason = 4;

/// The desk's own words: plain text too, since a translation is no place for markup either.
QLabel* makeLabel(const QString& text = {})
{
    auto* const label = new QLabel(text);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(text.isEmpty());
    return label;
}

void makeBold(QWidget* widget)
{
    QFont font = widget->font();
    font.setBold(true);
    widget->setFont(font);
}

/// Has a screen reader say `text`, which `widget` shows.
void announce(QWidget* widget, [[maybe_unused]] const QString& text)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    QAccessibleAnnouncementEvent announcement(widget, text);
    announcement.setPoliteness(QAccessible::AnnouncementPoliteness::Assertive);
#else
    QAccessibleEvent announcement(widget, QAccessible::Alert);
#endif
    QAccessible::updateAccessibility(&announcement);
}

void showIfAny(PlainTextView* view, const QString& text)
{
    view->show(text);
    view->setVisible(!text.isEmpty());
}

} // namespace

QuestionDialog::QuestionDialog(Desk& desk, Channel::SteadyClock clock)
    : m_desk(desk), m_clock(std::move(clock))
{
    setWindowTitle(tr("授权请求 - Korvane 授权台"));
    setWindowFlags(Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                   Qt::WindowCloseButtonHint | Qt::WindowStaysOnTopHint);
    auto* const layout = new QVBoxLayout(this);
    layout->addLayout(makeFacts());
    layout->addLayout(makeWords());
    layout->addStretch();
    layout->addLayout(makeAnswers());
    connect(this, &QuestionDialog::announced, m_countdown,
            [this](const QString& text) { announce(m_countdown, text); });
    connect(&m_timer, &QTimer::timeout, this, &QuestionDialog::refresh);
    connect(&m_desk, &Desk::questionAdded, this, &QuestionDialog::showFirst);
    connect(&m_desk, &Desk::questionEnded, this, &QuestionDialog::showFirst);
    showFirst();
}

/// What the desk knows by itself.
QLayout* QuestionDialog::makeFacts()
{
    auto* const grid = new QGridLayout;
    grid->setColumnStretch(1, 1);
    const auto addRow = [grid](const QString& name, QWidget* value) {
        const int row = grid->rowCount();
        QLabel* const label = makeLabel(name);
        grid->addWidget(label, row, 0, Qt::AlignTop);
        grid->addWidget(value, row, 1);
        return label;
    };
    m_risk = makeLabel();
    makeBold(m_risk);
    addRow(tr("后果:"), m_risk);
    m_asker = new PlainTextView(linesOfAsker, tr("请求方"));
    addRow(tr("请求方:"), m_asker);
    m_executable = new PlainTextView(linesOfAsker, tr("请求方的程序文件"));
    m_executableLabel = addRow(tr("程序文件:"), m_executable);
    m_warning = makeLabel();
    makeBold(m_warning);
    grid->addWidget(m_warning, grid->rowCount(), 0, 1, 2);
    return grid;
}

/// What the asker says, in frames that say so.
QLayout* QuestionDialog::makeWords()
{
    auto* const column = new QVBoxLayout;
    auto* const frame = new QGroupBox(tr("以下是请求方的话"));
    m_title = new PlainTextView(linesOfTitle, tr("请求方的标题"));
    makeBold(m_title);
    m_summary = new PlainTextView(linesOfSummary, tr("请求方的概要"));
    m_detail = new PlainTextView(linesOfDetail, tr("请求方的明细"), PlainTextView::Look::Framed);
    auto* const words = new QVBoxLayout(frame);
    for (PlainTextView* const view : {m_title, m_summary, m_detail})
        words->addWidget(view);
    m_reasonFrame = new QGroupBox(tr("以下是 AI 自述的理由, 未经核实"));
    m_reason = new PlainTextView(linesOfReason, tr("AI 自述的理由, 未经核实"));
    (new QVBoxLayout(m_reasonFrame))->addWidget(m_reason);
    column->addWidget(frame);
    column->addWidget(m_reasonFrame);
    return column;
}

QLayout* QuestionDialog::makeAnswers()
{
    auto* const row = new QHBoxLayout;
    m_place = makeLabel();
    m_place->setMinimumHeight(fontMetrics().height()); // Nothing moves as it comes and goes.
    m_countdown = makeLabel();
    m_allow = new QPushButton;
    m_refuse = new QPushButton(tr("拒绝"));
    m_refuse->setDefault(true);
    connect(m_allow, &QPushButton::clicked, this, &QuestionDialog::allow);
    connect(m_refuse, &QPushButton::clicked, this, &QuestionDialog::refuse);
    for (QPushButton* const button : {m_allow, m_refuse})
        button->installEventFilter(this);
    auto* const texts = new QVBoxLayout;
    texts->setContentsMargins(
        0, 0, 0, (m_refuse->sizeHint().height() - fontMetrics().height()) / 2); // As their text is.
    texts->addStretch();
    texts->addWidget(m_place);
    texts->addWidget(m_countdown);
    row->addLayout(texts, 1);
    for (QPushButton* const button : {m_allow, m_refuse})
        row->addWidget(button, 0, Qt::AlignBottom);
    return row;
}

void QuestionDialog::bringUp()
{
    if (m_shown == 0)
        return;
    show();
    raise();
    activateWindow();
    QApplication::alert(this);
}

void QuestionDialog::showFirst()
{
    if (m_desk.questions().isEmpty()) {
        m_shown = 0;
        m_timer.stop();
        hide();
        return;
    }
    if (m_desk.questions().first().id != m_shown)
        showQuestion(m_desk.questions().first());
    showPlace();
}

void QuestionDialog::showQuestion(const Question& question)
{
    m_shown = question.id;
    m_paintedAt.reset();
    m_activeSince.reset();
    m_announcedAt = m_desk.remaining(m_shown);

    const Risk risk = riskOf(question.request.action);
    m_risk->setText(risk.text);
    m_allow->setText(risk.allow);
    const int buttonWidth =
        fontMetrics().horizontalAdvance(risk.allow) + 2 * fontMetrics().height();
    for (QPushButton* const button : {m_allow, m_refuse})
        button->setMinimumWidth(buttonWidth);
    m_warning->setText(question.asker.warning());
    m_warning->setVisible(!m_warning->text().isEmpty());
    m_asker->show(question.asker.chainText());
    m_executableLabel->setVisible(question.asker.isKnown);
    showIfAny(m_executable, question.asker.executable);
    showIfAny(m_title, question.request.title);
    showIfAny(m_summary, question.request.summary);
    showIfAny(m_detail, question.request.detail);
    showIfAny(m_reason, question.request.reason);
    m_reasonFrame->setVisible(!question.request.reason.isEmpty());
    setAccessibleDescription(m_warning->text() + risk.text);

    refresh();
    m_refuse->setFocus();
    fit();
    m_timer.start(refreshTime);
    bringUp();
    update();
    announce(this, windowTitle());
}

void QuestionDialog::showPlace()
{
    const qsizetype count = m_desk.questions().size();
    m_place->setText(count > 1 ? tr("第 1 个, 共 %1 个").arg(count) : QString());
}

/// As large as its content wants, and no larger than the screen has room for.
void QuestionDialog::fit()
{
    constexpr int windowFrame = 40;
    const QSize room = screen()->availableSize() - QSize(0, windowFrame);
    const auto wanted = [this] {
        for (QGroupBox* const frame : findChildren<QGroupBox*>()) { // Else they hear of it later.
            frame->layout()->activate();
            frame->updateGeometry();
        }
        layout()->activate();
        return layout()->totalSizeHint();
    };
    const int width = std::min(wanted().width(), room.width());
    layout()->setGeometry({0, 0, width, room.height()});
    for (PlainTextView* const view : findChildren<PlainTextView*>())
        view->wrapWithin(view->width());
    const QSize size = wanted();
    const int height =
        layout()->hasHeightForWidth() ? layout()->totalHeightForWidth(width) : size.height();
    resize(width, std::min(height, room.height()));
}

void QuestionDialog::refresh()
{
    if (m_shown == 0)
        return;
    if (!m_paintedAt || !isVisible() || isMinimized() || !isActiveWindow())
        m_activeSince.reset();
    else if (!m_activeSince)
        m_activeSince = m_clock();
    if (!isSettled() && m_allow->hasFocus())
        m_refuse->setFocus();
    m_allow->setEnabled(isSettled());

    const milliseconds left = m_desk.remaining(m_shown);
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(left).count();
    m_countdown->setText(tr("剩余 %1 秒, 之后自动拒绝").arg(seconds));
    const bool isDue = std::any_of(spokenTimes.begin(), spokenTimes.end(), [&](milliseconds time) {
        return left <= time && time < m_announcedAt;
    });
    if (isDue) {
        m_announcedAt = left;
        Q_EMIT announced(m_countdown->text());
    }
}

bool QuestionDialog::isReadable() const
{
    return m_paintedAt && m_clock() - *m_paintedAt >= readingTime;
}

bool QuestionDialog::isSettled() const
{
    return m_activeSince && m_clock() - *m_activeSince >= readingTime;
}

/// X11 tells of a key that is held as of one that goes up and down at the same moment, and the
/// framework, where it reads the two apart, takes the second for a new one.
bool QuestionDialog::isStray(const QKeyEvent& key) const
{
    constexpr std::array answering{Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter, Qt::Key_Select,
                                   Qt::Key_Escape};
    const bool answers =
        std::find(answering.begin(), answering.end(), key.key()) != answering.end();
    const bool isHeld =
        key.isAutoRepeat() || (key.timestamp() != 0 && key.timestamp() == m_releasedAt);
    return answers && (isHeld || !isSettled());
}

void QuestionDialog::allow()
{
    if (isSettled())
        m_desk.allow(m_shown);
}

void QuestionDialog::refuse()
{
    if (isReadable())
        m_desk.refuse(m_shown);
}

void QuestionDialog::reject()
{
    m_desk.refuse(m_shown);
}

bool QuestionDialog::event(QEvent* event)
{
    constexpr std::array interruptions{QEvent::WindowDeactivate, QEvent::WindowStateChange,
                                       QEvent::Hide, QEvent::Move, QEvent::Resize};
    const bool isInterrupted =
        std::find(interruptions.begin(), interruptions.end(), event->type()) != interruptions.end();
    if (isInterrupted)
        m_activeSince.reset();
    if (isInterrupted || event->type() == QEvent::WindowActivate)
        refresh();
    return QDialog::event(event);
}

/// Keeps from the buttons what cannot be meant for them. A click begins with its press: one that came
/// too early stays too early.
bool QuestionDialog::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick:
        m_pressedAt = m_clock();
        return !isReadable();
    case QEvent::MouseMove:
    case QEvent::
        MouseButtonRelease: // Else a button that is held stays pressed for the next question.
        return watched == m_allow && (!m_activeSince || m_pressedAt < *m_activeSince + readingTime);
    case QEvent::KeyPress:
        return isStray(static_cast<const QKeyEvent&>(*event));
    case QEvent::KeyRelease:
        m_releasedAt = static_cast<const QKeyEvent&>(*event).timestamp();
        return QDialog::eventFilter(watched, event);
    default:
        return QDialog::eventFilter(watched, event);
    }
}

void QuestionDialog::keyPressEvent(QKeyEvent* event)
{
    if (!isStray(*event))
        QDialog::keyPressEvent(event);
}

void QuestionDialog::keyReleaseEvent(QKeyEvent* event)
{
    m_releasedAt = event->timestamp();
    QDialog::keyReleaseEvent(event);
}

void QuestionDialog::paintEvent(QPaintEvent* event)
{
    QDialog::paintEvent(event);
    if (!m_paintedAt)
        m_paintedAt = m_clock();
}

} // namespace korvane::desk
