// The dialog in which a person decides what an AI may do to the machine.
#pragma once

#include "desk/desk.h"

#include <QDialog>
#include <QTimer>

#include <optional>

class QGroupBox;
class QLabel;
class QPushButton;

namespace korvane::desk {

class PlainTextView;

/// Shows the first of the desk's questions, one after the other, for as long as there are any. Made for
/// people who are typing or clicking elsewhere when it appears: nothing counts before it can have been
/// read, and only an action that is meant for it allows. Main thread only.
class QuestionDialog : public QDialog
{
    Q_OBJECT

public:
    /// How long the dialog must have been seen before an answer counts.
    static constexpr std::chrono::milliseconds readingTime{1000};

    explicit QuestionDialog(Desk& desk, Channel::SteadyClock clock = Clock::ofSystem().steady);

    /// Brings the question above other windows, where the window system lets it.
    void bringUp();

    /// Shows the remaining time, and enables what has become possible. Called by a timer of its own;
    /// tests call it after they have set the clock.
    void refresh();

    /// Refuses: what closing the dialog and Escape come to.
    void reject() override;

Q_SIGNALS:
    /// A screen reader is told to say that.
    void announced(const QString& text);

protected:
    bool event(QEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    QLayout* makeFacts();
    QLayout* makeWords();
    QLayout* makeAnswers();
    void showFirst();
    void showQuestion(const Question& question);
    void showPlace();
    void fit();
    /// Whether the question has been on the screen for the reading time: a click may refuse.
    bool isReadable() const;
    /// Whether it has also had the keyboard all that time: it may be allowed, and keys count.
    bool isSettled() const;
    /// Whether a key would answer, but cannot be meant to: it came too early, or is held.
    bool isStray(const QKeyEvent& key) const;
    void allow();
    void refuse();

    Desk& m_desk;
    Channel::SteadyClock m_clock;
    QTimer m_timer;
    quint64 m_shown = 0; ///< The question on the screen; 0 for none.
    std::optional<std::chrono::milliseconds> m_paintedAt;
    std::optional<std::chrono::milliseconds> m_activeSince; ///< Without interruption.
    std::chrono::milliseconds m_pressedAt{0};   ///< When a mouse button last went down on a button.
    quint64 m_releasedAt = 0;                   ///< When a key last went up, as the events tell it.
    std::chrono::milliseconds m_announcedAt{0}; ///< The remaining time that was last announced.

    QLabel* m_risk = nullptr;
    QLabel* m_warning = nullptr;
    PlainTextView* m_asker = nullptr;
    QLabel* m_executableLabel = nullptr;
    PlainTextView* m_executable = nullptr;
    PlainTextView* m_title = nullptr;
    PlainTextView* m_summary = nullptr;
    PlainTextView* m_detail = nullptr;
    QGroupBox* m_reasonFrame = nullptr;
    PlainTextView* m_reason = nullptr;
    QLabel* m_place = nullptr;
    QLabel* m_countdown = nullptr;
    QPushButton* m_allow = nullptr;
    QPushButton* m_refuse = nullptr;
};

} // namespace korvane::desk
