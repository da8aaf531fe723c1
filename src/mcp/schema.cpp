// The shapes of the published JSON Schemas.
#include "mcp/schema.h"

#include <QJsonArray>

namespace korvane {

namespace {

QJsonObject property(const QString& type, const QString& description)
{
    return {{QStringLiteral("type"), type}, {QStringLiteral("description"), description}};
}

} // namespace

QJsonObject schemaEmpty()
{
    return schemaObject({});
}

QJsonObject schemaObject(const QJsonObject& properties, const QStringList& required)
{
    QJsonObject schema{{QStringLiteral("type"), QStringLiteral("object")},
                       {QStringLiteral("properties"), properties}};
    if (!required.isEmpty())
        schema.insert(QStringLiteral("required"), QJsonArray::fromStringList(required));
    return schema;
}

QJsonObject propString(const QString& description)
{
    return property(QStringLiteral("string"), description);
}

QJsonObject propInteger(const QString& description, int defaultValue)
{
    QJsonObject schema = propInteger(description);
    schema.insert(QStringLiteral("default"), defaultValue);
    return schema;
}

QJsonObject propInteger(const QString& description)
{
    return property(QStringLiteral("integer"), description);
}

QJsonObject propBoolean(const QString& description)
{
    return property(QStringLiteral("boolean"), description);
}

QJsonObject propStringArray(const QString& description)
{
    QJsonObject schema = property(QStringLiteral("array"), description);
    schema.insert(QStringLiteral("items"),
                  QJsonObject{{QStringLiteral("type"), QStringLiteral("string")}});
    return schema;
}

QJsonObject propStringEnum(const QStringList& values, const QString& description)
{
    QJsonObject schema = propString(description);
    schema.insert(QStringLiteral("enum"), QJsonArray::fromStringList(values));
    return schema;
}

} // namespace korvane
