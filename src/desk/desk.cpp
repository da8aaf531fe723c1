// Questions from their arrival to the recorded answer.
#include "desk/desk.h"

#include <QCoreApplication>

#include <algorithm>
#include <utility>

namespace korvane::desk {

namespace {

constexpr std::chrono::milliseconds tickTime{1000};
constexpr std::chrono::seconds channelCheckTime{10};

} // namespace

Clock Clock::ofSystem()
{
    return {.steady =
                [] {
                    return std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now().time_since_epoch());
                },
            .wall = [] { return QDateTime::currentDateTime(); }};
}

Desk::Desk(Clock clock, const QString& directory)
    : m_clock(std::move(clock)), m_channel(m_clock.steady), m_history(directory)
{
    connect(&m_channel, &Channel::asked, this, &Desk::take);
    connect(&m_channel, &Channel::garbled, this, &Desk::refuseGarbled);
    connect(&m_channel, &Channel::left, this, [this](quint64 id) { end(id, Outcome::AskerGone); });
    connect(&m_timer, &QTimer::timeout, this, &Desk::tick);
}

Desk::~Desk()
{
    quit();
}

bool Desk::start()
{
    const OpResult opened = m_channel.open();
    m_checkedAt = m_clock.steady();
    if (!m_timer.isActive())
        m_timer.start(tickTime);
    if (m_channelProblem != opened.message) {
        m_channelProblem = opened.message;
        Q_EMIT stateChanged();
    }
    return opened.ok;
}

void Desk::quit()
{
    m_timer.stop();
    refuseAll(Outcome::Quitting);
    m_channel.close({false, replyMessage(Outcome::Quitting)});
}

Desk::State Desk::state() const
{
    if (!m_channel.isOpen())
        return State::Unavailable;
    return m_isPaused ? State::Paused : State::Listening;
}

QString Desk::channelText() const
{
    const QString path = channelPath();
    return platform::areLocalSocketsFiles()
               ? QCoreApplication::translate("desk", "%1 (客户端须使用同一个 TMPDIR)").arg(path)
               : path;
}

QString Desk::problem() const
{
    if (!m_channelProblem.isEmpty() || m_historyProblem.isEmpty())
        return m_channelProblem;
    return QCoreApplication::translate("desk", "记录无法写入, 因此不能授权: %1")
        .arg(m_historyProblem);
}

std::chrono::milliseconds Desk::remaining(quint64 id) const
{
    const auto found = find(id);
    if (found == m_questions.end())
        return std::chrono::milliseconds::zero();
    return std::max(found->arrivedAtSteady + answerLimit - m_clock.steady(),
                    std::chrono::milliseconds::zero());
}

void Desk::allow(quint64 id)
{
    if (!m_channel.isConnected(id)) // Where it has just gone, the question has ended with it.
        return end(id, Outcome::AskerGone);
    const bool isInTime = remaining(id) > std::chrono::milliseconds::zero();
    end(id, isInTime ? Outcome::Granted : Outcome::TimedOut);
}

void Desk::refuse(quint64 id)
{
    end(id, Outcome::Refused);
}

void Desk::refuseAll(Outcome reason)
{
    for (const Question& question : QList(m_questions))
        end(question.id, reason);
}

void Desk::pauseFor(std::optional<std::chrono::seconds> time)
{
    m_isPaused = true;
    m_pausedUntil = time ? m_clock.wall().addSecs(time->count()) : QDateTime();
    refuseAll(Outcome::Paused);
    Q_EMIT stateChanged();
}

void Desk::resume()
{
    m_isPaused = false;
    m_pausedUntil = {};
    Q_EMIT stateChanged();
}

void Desk::tick()
{
    if (m_isPaused && m_pausedUntil.isValid() && m_clock.wall() >= m_pausedUntil)
        resume();
    m_channel.dropSlow();
    for (const Question& question : QList(m_questions)) {
        if (remaining(question.id) <= std::chrono::milliseconds::zero())
            end(question.id, Outcome::TimedOut);
    }
    // Whoever had the channel may have gone, or somebody may have removed the socket.
    if (m_clock.steady() - m_checkedAt >= channelCheckTime)
        start();
}

void Desk::take(quint64 id, const platform::Peer& peer, const consent::Request& request)
{
    const Question question{id, request, askerOf(peer), m_clock.wall(), m_clock.steady()};
    if (m_isPaused || m_questions.size() >= maxQuestions) {
        decide(question, m_isPaused ? Outcome::Paused : Outcome::Crowded);
        return;
    }
    m_questions.append(question);
    Q_EMIT questionAdded(id);
}

void Desk::refuseGarbled(quint64 id, const platform::Peer& peer, const QString& fault)
{
    decide({id, {}, askerOf(peer), m_clock.wall(), m_clock.steady()}, Outcome::Malformed, fault);
}

void Desk::end(quint64 id, Outcome outcome)
{
    const auto found = find(id);
    if (found == m_questions.end())
        return;
    const Question question = m_questions.takeAt(found - m_questions.cbegin());
    Q_EMIT questionEnded(id, decide(question, outcome));
}

Outcome Desk::decide(const Question& question, Outcome outcome, const QString& problem)
{
    HistoryEntry entry{.id = question.id,
                       .arrivedAt = question.arrivedAt,
                       .taken = m_clock.steady() - question.arrivedAtSteady,
                       .asker = question.asker,
                       .request = question.request,
                       .outcome = outcome};
    const OpResult recorded = m_history.record(entry);
    if (!recorded.ok && outcome == Outcome::Granted)
        outcome = Outcome::NotRecorded;
    if (outcome != Outcome::AskerGone) {
        const consent::Result result{outcome == Outcome::Granted, replyMessage(outcome, problem)};
        m_history.recordDelivery(question.id, m_channel.answer(question.id, result));
    }
    if (m_historyProblem != recorded.message) {
        m_historyProblem = recorded.message;
        Q_EMIT stateChanged();
    }
    Q_EMIT historyChanged();
    return outcome;
}

QList<Question>::const_iterator Desk::find(quint64 id) const
{
    return std::find_if(m_questions.begin(), m_questions.end(),
                        [id](const Question& question) { return question.id == id; });
}

} // namespace korvane::desk
