// How a question can end, and the words for it.
#pragma once

#include <QString>

#include <optional>

namespace korvane::desk {

enum class Outcome {
    Granted,     ///< The person said yes, it is in the history, and the answer was sent.
    Refused,     ///< The person said no.
    TimedOut,    ///< Nobody said anything in time.
    Paused,      ///< Everything is refused for now.
    Quitting,    ///< The desk ends.
    SessionEnd,  ///< The person's session ends, or its display is lost.
    Malformed,   ///< The request is none; it was not shown.
    Crowded,     ///< Too many questions are waiting; it was not shown.
    NotRecorded, ///< The person said yes, but the history cannot be written.
    AskerGone,   ///< Whoever asked has closed the connection: there is no answer.
};

/// The outcome's name in the history, which does not change.
QString outcomeName(Outcome outcome);

/// The outcome of that name; none where there is none.
std::optional<Outcome> outcomeOfName(const QString& name);

/// What the AI is told: each outcome in other words, so that it takes none for another. Always
/// Chinese. `problem` is what was wrong, for Malformed.
QString replyMessage(Outcome outcome, const QString& problem = {});

/// The answer in a word or two, in the person's language: "allowed", "refused".
QString answerText(Outcome outcome);

/// Who or what decided, in the person's language: the person, the time-out, a pause.
QString deciderText(Outcome outcome);

} // namespace korvane::desk
