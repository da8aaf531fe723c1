// The shapes of the published JSON Schemas.
#include "mcp/schema.h"

#include <QJsonArray>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QJsonObject property(const QString& type, const QString& description)
{
    return {{u"type"_s, type}, {u"description"_s, description}};
}

} // namespace

QJsonObject schemaEmpty()
{
    return schemaObject({});
}

QJsonObject schemaObject(const QJsonObject& properties, const QStringList& required)
{
    QJsonObject schema{{u"type"_s, u"object"_s}, {u"properties"_s, properties}};
    if (!required.isEmpty())
        schema.insert(u"required"_s, QJsonArray::fromStringList(required));
    return schema;
}

QJsonObject propString(const QString& description)
{
    return property(u"string"_s, description);
}

QJsonObject propInteger(const QString& description, int defaultValue)
{
    QJsonObject schema = propInteger(description);
    schema.insert(u"default"_s, defaultValue);
    return schema;
}

QJsonObject propInteger(const QString& description)
{
    return property(u"integer"_s, description);
}

QJsonObject propBoolean(const QString& description)
{
    return property(u"boolean"_s, description);
}

QJsonObject propStringArray(const QString& description)
{
    QJsonObject schema = property(u"array"_s, description);
    schema.insert(u"items"_s, QJsonObject{{u"type"_s, u"string"_s}});
    return schema;
}

QJsonObject propStringEnum(const QStringList& values, const QString& description)
{
    QJsonObject schema = propString(description);
    schema.insert(u"enum"_s, QJsonArray::fromStringList(values));
    return schema;
}

} // namespace korvane
