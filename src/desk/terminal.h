// The desk at a terminal: shows one question after the other and reads typed answers.
#pragma once

#include "desk/desk.h"
#include "platform/terminal.h"

#include <QObject>
#include <QTimer>

#include <optional>

namespace korvane::desk {

/// Allows by a typed "y" and Enter alone; any other line refuses. What was typed before a question's
/// prompt, which comes a second after the question, is thrown away. Main thread only.
class TerminalDesk : public QObject
{
    Q_OBJECT

public:
    TerminalDesk(Desk& desk, platform::Terminal& terminal);

    /// Shows the prompt and the remaining time when they are due. Called by a timer of its own; tests
    /// call it after they have set the desk's clock.
    void update();

Q_SIGNALS:
    /// Nobody can type any more.
    void ended();

private:
    void showNext();
    void showQuestion(const Question& question);
    void showPrompt();
    void showState();
    void answer(const QByteArray& line);
    void print(const QString& line);

    Desk& m_desk;
    platform::Terminal& m_terminal;
    QTimer m_timer;
    quint64 m_shown = 0;                       ///< The question on the screen; 0 for none.
    QString m_allow;                           ///< What a yes to it does.
    bool m_isAsked = false;                    ///< Its prompt is there: what is typed now counts.
    std::chrono::milliseconds m_nextChange{0}; ///< The remaining time at which the screen changes.
};

/// `text` as lines of a frame, at most `columns` wide, that nothing in it can get out of: what is not
/// seen or moves the cursor becomes U+FFFD, and long lines go on in the frame.
QStringList framed(const QString& text, int columns);

/// The latest `count` entries as lines for people, newest first: what askers have chosen is framed, at
/// most `columns` wide.
QString historyText(const QList<HistoryEntry>& entries, qsizetype count, int columns);

} // namespace korvane::desk
