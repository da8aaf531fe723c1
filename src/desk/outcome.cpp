// Names of the outcomes for the history, sentences for the AI, words for the person.
#include "desk/outcome.h"

#include <QCoreApplication>

#include <algorithm>
#include <array>

namespace korvane::desk {

namespace {

struct Words
{
    Outcome outcome;
    const char* name;
    const char* message; ///< For the AI.
    const char* answer;
    const char* decider;
};

// clang-format off
constexpr std::array words{
    Words{Outcome::Granted, "granted",
          "用户看过此操作后明确允许。",
          QT_TRANSLATE_NOOP("desk", "已允许"), QT_TRANSLATE_NOOP("desk", "本人")},
    Words{Outcome::Refused, "refused",
          "用户看过此操作后明确拒绝。这是用户本人的决定: 请勿重试, 应先与用户沟通。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "本人")},
    Words{Outcome::TimedOut, "timedOut",
          "120 秒内无人作答, 已自动拒绝。用户可能不在电脑前, 并未对此操作作出决定。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "超时")},
    Words{Outcome::Paused, "paused",
          "用户已让授权台暂时拒绝一切请求, 此请求被自动拒绝, 用户并未对它单独作出决定。"
               "请等用户恢复授权后再试。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "暂停中")},
    Words{Outcome::Quitting, "quitting",
          "授权台正在退出, 此请求被自动拒绝, 用户并未对它作出决定。请等授权台重新启动后再试。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "授权台退出")},
    Words{Outcome::SessionEnd, "sessionEnd",
          "用户的桌面会话已结束, 此请求被自动拒绝, 用户并未对它作出决定。请等用户重新登录后再试。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "会话结束")},
    Words{Outcome::Malformed, "malformed",
          "授权请求格式有误 (%1), 已自动拒绝, 未向用户显示。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "格式有误")},
    Words{Outcome::Crowded, "crowded",
          "等待用户答复的请求已满 64 个, 此请求被自动拒绝, 未向用户显示。请稍后再试。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "请求过多")},
    Words{Outcome::NotRecorded, "notRecorded",
          "授权记录无法写入, 没有记录就不能授权, 已自动拒绝。请用户按授权台的提示处理后再试。",
          QT_TRANSLATE_NOOP("desk", "已拒绝"), QT_TRANSLATE_NOOP("desk", "无法记录")},
    Words{Outcome::AskerGone, "askerGone", "",
          QT_TRANSLATE_NOOP("desk", "未答复"), QT_TRANSLATE_NOOP("desk", "请求方已离开")},
};
// clang-format on

const Words& wordsOf(Outcome outcome)
{
    return words.at(static_cast<std::size_t>(outcome));
}

} // namespace

QString outcomeName(Outcome outcome)
{
    return QString::fromLatin1(wordsOf(outcome).name);
}

std::optional<Outcome> outcomeOfName(const QString& name)
{
    const auto* const found = std::find_if(words.begin(), words.end(), [&name](const Words& row) {
        return name == QLatin1StringView(row.name);
    });
    return found == words.end() ? std::nullopt : std::optional(found->outcome);
}

QString replyMessage(Outcome outcome, const QString& problem)
{
    const QString message = QString::fromUtf8(wordsOf(outcome).message);
    return message.contains(u"%1") ? message.arg(problem) : message;
}

QString answerText(Outcome outcome)
{
    return QCoreApplication::translate("desk", wordsOf(outcome).answer);
}

QString deciderText(Outcome outcome)
{
    return QCoreApplication::translate("desk", wordsOf(outcome).decider);
}

} // namespace korvane::desk
