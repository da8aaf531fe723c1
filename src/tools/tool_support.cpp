// Argument reading, rounding and failing, once for all tools.
#include "tools/tool_support.h"

#include <QJsonValue>
#include <QVariant>

#include <cmath>
#include <stdexcept>

namespace korvane {

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

QString trimmedArgument(const QJsonObject& args, QLatin1String key)
{
    return args.value(key).toString().trimmed();
}

double roundedToOneDecimal(double value)
{
    return QString::number(value, 'f', 1).toDouble();
}

} // namespace korvane
