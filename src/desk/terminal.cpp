// Questions, prompts and the history as text.
#include "desk/terminal.h"

#include "consent/shown_text.h"
#include "desk/risk.h"

#include <QCoreApplication>

#include <algorithm>
#include <array>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

/// Until a typed answer counts: nobody has read a question before.
constexpr milliseconds readingTime = 1s;

/// The remaining times that are announced.
constexpr std::array<milliseconds, 4> announced{60s, 30s, 10s, 0s};

QString translated(const char* text)
{
    return QCoreApplication::translate("desk", text);
}

qint64 wholeSeconds(milliseconds time)
{
    return std::chrono::ceil<std::chrono::seconds>(time).count();
}

/// Columns that a terminal may take for it, at most. Terminals for Chinese may show Greek and Cyrillic
/// letters, accents and signs wide too.
int widthOf(char32_t code)
{
    constexpr char32_t firstWide = 0x80;
    return code < firstWide ? 1 : 2;
}

} // namespace

QStringList framed(const QString& text, int columns)
{
    constexpr int leastColumns = 20;
    const int room = std::max(columns, leastColumns) - widthOf(U'│') - 2;
    QStringList lines;
    for (const QString& line : text.split(u'\n')) {
        QString row = u"│ "_s;
        int used = 0;
        for (const char32_t code : consent::shownLine(line).toStdU32String()) {
            if (used + widthOf(code) > room) {
                lines.append(row);
                row = u"│ "_s;
                used = 0;
            }
            row += QString::fromUcs4(&code, 1);
            used += widthOf(code);
        }
        lines.append(row);
    }
    return lines;
}

QString historyText(const QList<HistoryEntry>& entries, qsizetype count, int columns)
{
    QStringList lines;
    for (const HistoryEntry& entry : entries.first(std::min(count, entries.size()))) {
        lines.append(u"%1  %2 (%3, %4 s%5)"_s.arg(
            entry.arrivedAt.toString(u"yyyy-MM-dd HH:mm:ss"_s), answerText(entry.outcome),
            deciderText(entry.outcome),
            QString::number(static_cast<double>(entry.taken.count()) / 1000, 'f', 1),
            deliveryText(entry).isEmpty() ? QString() : u", "_s + deliveryText(entry)));
        for (const QString& words :
             {entry.asker.chainText(), entry.request.action, entry.request.summary})
            lines += framed(words, columns);
    }
    return lines.isEmpty() ? QString() : lines.join(u'\n') + u'\n';
}

TerminalDesk::TerminalDesk(Desk& desk, platform::Terminal& terminal)
    : m_desk(desk), m_terminal(terminal)
{
    m_terminal.onLine = [this](const QByteArray& line) { answer(line); };
    m_terminal.onEnd = [this] { Q_EMIT ended(); };
    connect(&m_desk, &Desk::questionAdded, this, &TerminalDesk::showNext);
    connect(&m_desk, &Desk::questionEnded, this, [this](quint64 id, Outcome outcome) {
        if (id != m_shown)
            return;
        m_shown = 0;
        m_timer.stop();
        print(u"\n→ %1 (%2)"_s.arg(answerText(outcome), deciderText(outcome)));
        showNext();
    });
    connect(&m_desk, &Desk::stateChanged, this, &TerminalDesk::showState);
    connect(&m_timer, &QTimer::timeout, this, &TerminalDesk::update);
    showState();
}

void TerminalDesk::update()
{
    if (m_shown != 0 && m_desk.remaining(m_shown) <= m_nextChange)
        showPrompt();
}

void TerminalDesk::showNext()
{
    if (m_shown != 0 || m_desk.questions().isEmpty())
        return;
    const Question question = m_desk.questions().first();
    m_shown = question.id;
    constexpr milliseconds updateTime = 200ms;
    m_timer.start(updateTime);
    m_isAsked = false;
    showQuestion(question); // May wait, where the terminal's output is halted: reading begins then.
    m_nextChange = std::max(m_desk.remaining(m_shown) - readingTime, milliseconds::zero());
}

/// The desk's own words come last: whatever length the asker's have, they are on the screen.
void TerminalDesk::showQuestion(const Question& question)
{
    const auto frame = [this](const char* heading, const QString& text) {
        print(translated(heading));
        print(framed(text, m_terminal.columns()).join(u'\n'));
    };
    const Risk risk = riskOf(question.request.action);
    m_allow = risk.allow;
    print(u"\a\n"_s + translated(QT_TRANSLATE_NOOP("desk", "授权请求, 共 %1 个等待中"))
                          .arg(m_desk.questions().size()));
    frame(
        QT_TRANSLATE_NOOP("desk", "以下是请求方的话:"),
        QStringList{question.request.title, question.request.summary, question.request.detail}.join(
            u'\n'));
    frame(QT_TRANSLATE_NOOP("desk", "以下是 AI 自述的理由, 未经核实:"), question.request.reason);
    // Names of files are the asker's choice: what wraps is not to begin a line of the desk's own.
    frame(QT_TRANSLATE_NOOP("desk", "请求方:"),
          question.asker.isKnown ? question.asker.chainText() + u'\n' + question.asker.executable
                                 : question.asker.chainText());
    if (const QString warning = question.asker.warning(); !warning.isEmpty())
        print(warning);
    print(translated(QT_TRANSLATE_NOOP("desk", "后果: %1")).arg(risk.text));
}

void TerminalDesk::showPrompt()
{
    if (!m_isAsked)
        m_terminal.discardInput();
    else
        print({}); // After what has been typed so far, which still counts.
    m_isAsked = true;
    const milliseconds left = m_desk.remaining(m_shown);
    m_nextChange = *std::find_if(announced.begin(), announced.end() - 1,
                                 [left](milliseconds time) { return time < left; });
    const QString prompt =
        translated(
            QT_TRANSLATE_NOOP("desk", "%1? 输入 y 并回车为允许, 其他为拒绝; 剩余 %2 秒 [y/N] "))
            .arg(m_allow, QString::number(wholeSeconds(left)));
    m_terminal.write(prompt.toUtf8());
}

void TerminalDesk::showState()
{
    const QString problem = m_desk.problem();
    print(problem.isEmpty() ? translated(QT_TRANSLATE_NOOP("desk", "正在监听 %1; 按 Ctrl+C 退出。"))
                                  .arg(m_desk.channelPath())
                            : problem);
}

void TerminalDesk::answer(const QByteArray& line)
{
    if (m_shown == 0 || !m_isAsked)
        return;
    if (line == "y")
        m_desk.allow(m_shown);
    else
        m_desk.refuse(m_shown);
}

void TerminalDesk::print(const QString& line)
{
    m_terminal.write((line + u'\n').toUtf8());
}

} // namespace korvane::desk
