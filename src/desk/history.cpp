// Records as JSON lines, written at once and for good.
#include "desk/history.h"

#include "desk/lock.h"
#include "platform/file_sync.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

#include <algorithm>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

constexpr QFile::Permissions ownerOnly = QFile::ReadOwner | QFile::WriteOwner;

QString translated(const char* text)
{
    return QCoreApplication::translate("desk", text);
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QJsonObject encode(const HistoryEntry& entry)
{
    return {{u"id"_s, static_cast<qint64>(entry.id)},
            {u"time"_s, entry.arrivedAt.toUTC().toString(Qt::ISODateWithMs)},
            {u"outcome"_s, outcomeName(entry.outcome)},
            {u"milliseconds"_s, static_cast<qint64>(entry.taken.count())},
            {u"pid"_s, static_cast<qint64>(entry.asker.pid)},
            {u"executable"_s, entry.asker.executable},
            {u"chain"_s, QJsonArray::fromStringList(entry.asker.chain)},
            {u"ownServer"_s, entry.asker.isOwnServer},
            {u"action"_s, entry.request.action},
            {u"title"_s, entry.request.title},
            {u"summary"_s, entry.request.summary},
            {u"detail"_s, entry.request.detail},
            {u"reason"_s, entry.request.reason}};
}

HistoryEntry decode(const QJsonObject& object, Outcome outcome)
{
    const auto text = [&object](const char* key) {
        return object.value(QLatin1StringView(key)).toString();
    };
    const auto number = [&object](const char* key) {
        return object.value(QLatin1StringView(key)).toInteger();
    };
    HistoryEntry entry;
    entry.id = static_cast<quint64>(number("id"));
    entry.arrivedAt = QDateTime::fromString(text("time"), Qt::ISODateWithMs).toLocalTime();
    entry.taken = std::chrono::milliseconds(number("milliseconds"));
    entry.asker.pid = static_cast<quint32>(number("pid"));
    entry.asker.executable = text("executable");
    entry.asker.isKnown = !entry.asker.executable.isEmpty();
    entry.asker.isOwnServer = object.value(QLatin1StringView("ownServer")).toBool();
    entry.asker.chain = object.value(QLatin1StringView("chain")).toVariant().toStringList();
    entry.request = {text("action"), text("title"), text("summary"), text("detail"),
                     text("reason")};
    entry.outcome = outcome;
    return entry;
}

qsizetype lengthOf(const consent::Request& request)
{
    return request.action.size() + request.title.size() + request.summary.size() +
           request.detail.size() + request.reason.size();
}

/// Whether the next line may follow; not where a write was cut off by the program's end.
bool endsWithLine(QFile& file)
{
    return file.size() == 0 || (file.seek(file.size() - 1) && file.read(1) == "\n");
}

} // namespace

QString deliveryText(const HistoryEntry& entry)
{
    if (entry.outcome == Outcome::AskerGone)
        return {};
    switch (entry.delivery) {
    case HistoryEntry::Delivery::Delivered:
        return translated(QT_TRANSLATE_NOOP("desk", "答复已送达"));
    case HistoryEntry::Delivery::AskerGone:
        return translated(QT_TRANSLATE_NOOP("desk", "答复时请求方已离开"));
    case HistoryEntry::Delivery::Unknown:
        break;
    }
    return translated(QT_TRANSLATE_NOOP("desk", "答复是否送达不明"));
}

History::History(QString directory) : m_directory(std::move(directory)) {}

QString History::defaultDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

QString History::pathOf(int age) const
{
    const QString number = age == 0 ? QString() : u".%1"_s.arg(age);
    return u"%1/history%2.jsonl"_s.arg(m_directory, number);
}

OpResult History::record(const HistoryEntry& entry)
{
    // What never was a question may come by the thousand, and nobody has decided it.
    const bool isDecision = entry.outcome != Outcome::Malformed;
    OpResult written = append(compact(encode(entry)), isDecision);
    HistoryEntry remembered = entry;
    if (!written.ok) {
        static_cast<void>(entries()); // No file tells of this one.
        if (entry.outcome == Outcome::Granted)
            remembered.outcome = Outcome::NotRecorded;
    }
    if (m_isLoaded)
        remember(remembered);
    return written;
}

void History::recordDelivery(quint64 id, bool isDelivered)
{
    const QJsonObject line{{u"id"_s, static_cast<qint64>(id)}, {u"delivered"_s, isDelivered}};
    append(compact(line), false);
    note(id, isDelivered);
}

const QList<HistoryEntry>& History::entries()
{
    for (int age = keptFiles; age >= 0 && !m_isLoaded; --age)
        readFile(pathOf(age));
    m_isLoaded = true;
    return m_entries;
}

OpResult History::takeOver()
{
    if (m_lock)
        return {true, {}};
    if (!QDir().exists(m_directory) &&
        !QDir().mkpath(m_directory)) // The files in it have a mode of their own.
        return {false, translated(QT_TRANSLATE_NOOP("desk", "无法创建目录 %1")).arg(m_directory)};
    qint64 holder = 0;
    m_lock = takeLock(m_directory + u"/history.lock"_s, holder);
    if (m_lock)
        return {true, {}};
    return {false, holder != 0
                       ? translated(QT_TRANSLATE_NOOP("desk", "另一个授权台 (PID %1) 正在使用 %2"))
                             .arg(QString::number(holder), m_directory)
                       : translated(QT_TRANSLATE_NOOP("desk", "目录 %1 不可写")).arg(m_directory)};
}

OpResult History::append(const QByteArray& line, bool waitsForDisk)
{
    if (OpResult taken = takeOver(); !taken.ok)
        return taken;
    if (QFile::exists(pathOf(0)) && QFile(pathOf(0)).size() + line.size() > maxFileBytes)
        rotate();
    QFile file(pathOf(0));
    if (!file.open(QFile::ReadWrite | QFile::Append | QFile::Unbuffered, ownerOnly))
        return {false, file.errorString()};
    const qint64 before = file.size();
    const QByteArray written = (endsWithLine(file) ? QByteArray() : QByteArray("\n")) + line + '\n';
    const bool isWritten = file.write(written) == written.size();
    if (isWritten && (!waitsForDisk || platform::syncFile(file.handle())))
        return {true, {}};
    const QString error =
        isWritten ? translated(QT_TRANSLATE_NOOP("desk", "磁盘写入失败")) : file.errorString();
    file.resize(before); // It is not to tell of a grant that never went out.
    return {false, error};
}

void History::rotate()
{
    QFile::remove(pathOf(keptFiles));
    for (int age = keptFiles; age > 0; --age)
        QFile::rename(pathOf(age - 1), pathOf(age));
}

void History::readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QFile::ReadOnly) || file.isSequential())
        return;
    file.seek(std::max<qint64>(0, file.size() - 2 * maxFileBytes)); // Others may have grown it.
    QList<QByteArray> lines = file.read(2 * maxFileBytes).split('\n');
    lines.removeLast(); // Empty, or torn.
    for (const QByteArray& line : lines) {
        const QJsonObject object = QJsonDocument::fromJson(line).object();
        const QJsonValue delivered = object.value(QLatin1StringView("delivered"));
        const auto outcome = outcomeOfName(object.value(QLatin1StringView("outcome")).toString());
        if (outcome)
            remember(decode(object, *outcome));
        else if (delivered.isBool())
            note(static_cast<quint64>(object.value(QLatin1StringView("id")).toInteger()),
                 delivered.toBool());
    }
}

void History::remember(const HistoryEntry& entry)
{
    m_entries.prepend(entry);
    m_characters += lengthOf(entry.request);
    while (m_entries.size() > maxShown || m_characters > maxShownCharacters)
        m_characters -= lengthOf(m_entries.takeLast().request);
}

void History::note(quint64 id, bool isDelivered)
{
    const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [id](const HistoryEntry& entry) { return entry.id == id; });
    if (found != m_entries.end())
        found->delivery =
            isDelivered ? HistoryEntry::Delivery::Delivered : HistoryEntry::Delivery::AskerGone;
}

} // namespace korvane::desk
