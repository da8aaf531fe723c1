// What several tool handlers share: reading arguments, rounding, and failing.
#pragma once

#include "base/singleton.h"
#include "consent/consent_client.h"
#include "consent/shown_text.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

namespace korvane {

/// Ends a tool call with `message` as its error.
[[noreturn]] void throwToolError(const QString& message);

/// The argument as the framework's variant conversion makes it a 64-bit integer: a number is
/// rounded, a numeric string is parsed, true is 1. 0 when missing, out of range or anything else.
qint64 integerArgument(const QJsonObject& args, QLatin1String key);

/// The argument as a string without surrounding white space; empty when it is not a string.
QString trimmedArgument(const QJsonObject& args, QLatin1String key);

/// The argument "port"; ends the tool call when it is not in 1..65535.
qint64 portArgument(const QJsonObject& args);

/// Returns when the user grants `request`; ends the tool call with the refusal otherwise.
void requireConsent(const consent::Request& request);

/// The argument as a string, as it is; empty when it is not one.
QString textArgument(const QJsonObject& args, QLatin1String key);

/// The value as its text with one decimal reads: 1.26 becomes 1.3.
double roundedToOneDecimal(double value);

/// A size in MiB, with one decimal.
double roundedMebibytes(qint64 bytes);

/// Ends the tool call with the service's lastError() when the listing is empty because it failed.
template <typename List, typename Service>
void requireListed(const List& list, const Service& service)
{
    if (list.isEmpty() && !service.lastError().isEmpty())
        throwToolError(service.lastError());
}

/// What a service lists; ends the tool call when that failed.
template <typename Service> auto listAll()
{
    const Service& service = Singleton<Service>::instance();
    auto records = service.listAll();
    requireListed(records, service);
    return records;
}

/// The answer of a tool that lists an inventory as it is: "total" and, under `key`, an object a record.
template <typename Record>
QJsonObject inventory(const QList<Record>& records, const QString& key,
                      QJsonObject (*toObject)(const Record&))
{
    using namespace Qt::StringLiterals;
    QJsonArray objects;
    for (const Record& record : records)
        objects.append(toObject(record));
    return {{u"total"_s, objects.size()}, {key, objects}};
}

} // namespace korvane
