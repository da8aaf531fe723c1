// Requests and answers from and to JSON.
#include "consent/protocol.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <array>

namespace korvane::consent {

using namespace Qt::StringLiterals;

namespace {

struct Member
{
    QLatin1StringView key;
    QString Request::*value;
};

constexpr std::array members{
    Member{QLatin1StringView("action"), &Request::action},
    Member{QLatin1StringView("title"), &Request::title},
    Member{QLatin1StringView("summary"), &Request::summary},
    Member{QLatin1StringView("detail"), &Request::detail},
    Member{QLatin1StringView("reason"), &Request::reason},
};

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

/// What is wrong with a request; empty for a good one, whose strings go to `request`.
QString readMembers(const QByteArray& line, Request& request)
{
    QJsonParseError parsing{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &parsing);
    if (parsing.error != QJsonParseError::NoError)
        return u"不是有效的 JSON"_s;
    if (!document.isObject())
        return u"不是 JSON 对象"_s;
    const QJsonObject object = document.object();
    for (const Member& member : members) {
        const QJsonValue value = object.value(member.key);
        if (value.isUndefined())
            return u"缺少成员 %1"_s.arg(member.key);
        if (!value.isString())
            return u"成员 %1 不是字符串"_s.arg(member.key);
        request.*member.value = value.toString();
    }
    return {};
}

} // namespace

QByteArray encodeRequest(const Request& request)
{
    QJsonObject object;
    for (const Member& member : members)
        object.insert(member.key, request.*member.value);
    return compact(object);
}

std::optional<Request> decodeRequest(const QByteArray& line, QString* error)
{
    Request request;
    const QString fault = readMembers(line, request);
    if (error != nullptr)
        *error = fault;
    return fault.isEmpty() ? std::optional(request) : std::nullopt;
}

QByteArray encodeResult(const Result& result)
{
    return compact({{u"granted"_s, result.granted}, {u"message"_s, result.message}});
}

Result decodeResult(const QByteArray& line)
{
    const QJsonObject object = QJsonDocument::fromJson(line).object();
    return {object.value("granted"_L1).toBool(), object.value("message"_L1).toString()};
}

} // namespace korvane::consent
