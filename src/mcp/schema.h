// Builders for the JSON Schemas that the tool catalog publishes.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace korvane {

/// Schema of a tool without arguments.
QJsonObject schemaEmpty();

/// Schema of a tool with the given properties; "required" only when it names any.
QJsonObject schemaObject(const QJsonObject& properties, const QStringList& required = {});

/// A string.
QJsonObject propString(const QString& description);

/// An integer with a published default.
QJsonObject propInteger(const QString& description, int defaultValue);

/// An integer without a default.
QJsonObject propInteger(const QString& description);

/// A boolean; its default is told only by the description.
QJsonObject propBoolean(const QString& description);

/// An array of strings.
QJsonObject propStringArray(const QString& description);

/// A string that is one of `values`, published in that order.
QJsonObject propStringEnum(const QStringList& values, const QString& description);

} // namespace korvane
