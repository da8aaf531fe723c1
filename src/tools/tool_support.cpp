// Argument reading, rounding and failing, once for all tools.
#include "tools/tool_support.h"

#include "base/byte_size.h"

#include <QJsonValue>
#include <QVariant>

#include <cmath>
#include <stdexcept>

namespace korvane {

using namespace Qt::StringLiterals;

void throwToolError(const QString& message)
{
    throw std::runtime_error(message.toStdString());
}

qint64 integerArgument(const QJsonObject& args, QLatin1String key)
{
    const QVariant value = args.value(key).toVariant();
    // Outside the range the conversion of a double is undefined. 2^63 itself is outside.
    constexpr double limit = 9223372036854775808.0;
    if (value.typeId() == QMetaType::Double && !(std::abs(value.toDouble()) < limit))
        return 0;
    return value.toLongLong();
}

qint64 portArgument(const QJsonObject& args)
{
    const qint64 port = integerArgument(args, "port"_L1);
    if (port < 1 || port > 65535)
        throwToolError(u"参数 port 缺失或非法 — 必须是 1-65535 的整数"_s);
    return port;
}

QString textArgument(const QJsonObject& args, QLatin1String key)
{
    return args.value(key).toString();
}

QString trimmedArgument(const QJsonObject& args, QLatin1String key)
{
    return textArgument(args, key).trimmed();
}

void requireConsent(const consent::Request& request)
{
    const consent::Result result = consent::requestConsent(request);
    if (!result.granted) {
        throwToolError(result.message.isEmpty() ? u"用户未授权此操作"_s : result.message);
    }
}

double roundedToOneDecimal(double value)
{
    return QString::number(value, 'f', 1).toDouble();
}

double roundedMebibytes(qint64 bytes)
{
    return roundedToOneDecimal(mebibytes(bytes));
}

} // namespace korvane
