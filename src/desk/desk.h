// The consent desk without its window: questions with their clocks, the pause, the answers.
#pragma once

#include "consent/protocol.h"
#include "desk/asker.h"
#include "desk/channel.h"
#include "desk/history.h"
#include "desk/outcome.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <optional>

namespace korvane::desk {

/// A request that waits for the person.
struct Question
{
    quint64 id = 0;
    consent::Request request; ///< As it came: not fit to be shown.
    Asker asker;
    QDateTime arrivedAt;
    std::chrono::milliseconds arrivedAtSteady{0}; ///< The same moment by Clock::steady.
};

/// The time, which tests set.
struct Clock
{
    /// Since some start; what limits are measured by.
    std::function<std::chrono::milliseconds()> steady;
    /// What people read.
    std::function<QDateTime()> wall;

    static Clock ofSystem();
};

/// Takes requests from the channel, has the person answer them, and records it. A grant goes out only
/// for a question in questions(), in time, that is recorded, and whose asker is there. Main thread only.
class Desk : public QObject
{
    Q_OBJECT

public:
    enum class State {
        Listening,
        Paused,      ///< Listens, and refuses everything for now.
        Unavailable, ///< Does not listen: problem() says why. Tried again every few seconds.
    };

    /// How long a question waits, from its arrival. The server gives up 10 s later.
    static constexpr std::chrono::seconds answerLimit{120};
    /// How many questions wait at a time; a further one is refused.
    static constexpr qsizetype maxQuestions = 64;

    explicit Desk(Clock clock = Clock::ofSystem(),
                  const QString& directory = History::defaultDirectory());
    ~Desk() override; ///< As quit().
    Q_DISABLE_COPY_MOVE(Desk)

    /// Takes the channel. False where somebody else has it or it cannot be had.
    bool start();

    /// Refuses what is open and leaves the channel, for good.
    void quit();

    /// What waits, oldest first.
    const QList<Question>& questions() const { return m_questions; }

    /// Until question `id` is refused; none left where there is no such question.
    std::chrono::milliseconds remaining(quint64 id) const;

    /// The person's yes to question `id`. Nothing happens where it has ended. It ends otherwise than
    /// granted where its time is over, its asker gone, or the history cannot be written.
    void allow(quint64 id);

    /// The person's no.
    void refuse(quint64 id);

    /// Refuses what waits, for a reason that is not the person's no to each.
    void refuseAll(Outcome reason);

    /// Refuses what waits and whatever comes, for that long; without a time until resume().
    void pauseFor(std::optional<std::chrono::seconds> time);
    void resume();
    bool isPaused() const { return m_isPaused; }

    /// When the pause ends; invalid without a pause, and in one that lasts until changed.
    QDateTime pausedUntil() const { return m_pausedUntil; }

    State state() const;

    /// Where the channel is.
    QString channelPath() const { return m_channel.path(); }

    /// The same for people, with what clients have to heed, in the person's language.
    QString channelText() const;

    /// What is wrong and what to do about it, in the person's language; empty when nothing is. Also
    /// set while listening, after the history could not be written.
    QString problem() const;

    /// The PID of the other korvane-desk that has the channel; 0 where that is not the reason.
    qint64 otherDesk() const { return m_channel.otherDesk(); }

    /// What has ended, newest first; at most History::maxShown.
    const QList<HistoryEntry>& history() { return m_history.entries(); }

    /// Ends what is over: questions, a pause, requests that do not arrive. Called by a timer of the
    /// desk's own; tests call it after they have set the clock.
    void tick();

Q_SIGNALS:
    void questionAdded(quint64 id);
    /// It is in questions() no more. Not for a request that never was in there.
    void questionEnded(quint64 id, korvane::desk::Outcome outcome);
    void stateChanged();
    void historyChanged();

private:
    void take(quint64 id, const platform::Peer& peer, const consent::Request& request);
    void refuseGarbled(quint64 id, const platform::Peer& peer, const QString& fault);
    void end(quint64 id, Outcome outcome);
    /// Records, then answers. The outcome that it came to.
    Outcome decide(const Question& question, Outcome outcome, const QString& problem = {});
    QList<Question>::const_iterator find(quint64 id) const;

    Clock m_clock;
    Channel m_channel;
    History m_history;
    QTimer m_timer;
    QList<Question> m_questions;
    bool m_isPaused = false;
    QDateTime m_pausedUntil;
    std::chrono::milliseconds m_checkedAt{0}; ///< When the channel was last seen to.
    QString m_channelProblem;
    QString m_historyProblem;
};

} // namespace korvane::desk
