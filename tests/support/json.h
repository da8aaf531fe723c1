// JSON and tables as the tests write them down.
#pragma once

#include <QCryptographicHash>
#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

namespace korvane::test {

/// The object that `text` holds; backticks stand for double quotes.
inline QJsonObject json(QString text)
{
    return QJsonDocument::fromJson(text.replace(u'`', u'"').toUtf8()).object();
}

/// `object` in one line without blanks, with backticks for double quotes.
inline QString text(const QJsonObject& object)
{
    const QByteArray compact = QJsonDocument(object).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(compact).replace(u'"', u'`');
}

/// Whether `text` is what clients and users go by, of which this is the SHA-256: it changes on
/// purpose only. One that is not is printed.
inline bool isAgreedOn(const QString& text, const char* digest)
{
    const auto found = QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex();
    if (found != digest)
        qInfo().noquote() << found << text;
    return found == digest;
}

/// The lines of a table without the blanks around them; empty ones are left out.
inline QStringList rows(const char* table)
{
    QStringList lines = QString::fromUtf8(table).split(u'\n');
    for (QString& line : lines)
        line = line.trimmed();
    lines.removeAll(QString());
    return lines;
}

} // namespace korvane::test
