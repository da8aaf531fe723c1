// What was asked and answered: a file of JSON lines that only grows, and is rotated.
#pragma once

#include "base/op_result.h"
#include "consent/protocol.h"
#include "desk/asker.h"
#include "desk/outcome.h"

#include <QDateTime>
#include <QList>
#include <QLockFile>
#include <QString>

#include <chrono>
#include <memory>

namespace korvane::desk {

/// One question that has ended.
struct HistoryEntry
{
    /// Whether the answer went out.
    enum class Delivery {
        Unknown,   ///< The desk ended before it could say; or there was no answer.
        Delivered, ///< It was taken over by the system for the asker.
        AskerGone, ///< The asker had gone by then.
    };

    quint64 id = 0;
    QDateTime arrivedAt;
    std::chrono::milliseconds taken{0}; ///< From the arrival to the decision.
    Asker asker;
    consent::Request request; ///< As it came: not fit to be shown.
    Outcome outcome = Outcome::Refused;
    Delivery delivery = Delivery::Unknown;
};

/// Whether the answer went out, in the person's language; empty where there was none to send.
QString deliveryText(const HistoryEntry& entry);

/// The history in `directory`, which it makes where needed: history.jsonl, and what was rotated away,
/// history.1.jsonl (the latest) to history.3.jsonl. Main thread only.
class History
{
public:
    explicit History(QString directory);

    /// The person's own directory for it.
    static QString defaultDirectory();

    /// Records a decision; ok once it is on the disk, for which it waits. Not ok where it cannot be
    /// written, or where another desk writes that history.
    OpResult record(const HistoryEntry& entry);

    /// Records whether the answer to `id` went out. A failure is not told: the decision stands.
    void recordDelivery(quint64 id, bool isDelivered);

    /// The latest entries, newest first, within the limits below. Reads the files at the first call.
    const QList<HistoryEntry>& entries();

    static constexpr qsizetype maxShown = 1000;
    static constexpr qint64 maxFileBytes = qint64{5} * 1024 * 1024;
    static constexpr int keptFiles = 3; ///< Beside the one that is written.
    /// Of all entries: no more than the files hold, however many long requests come.
    static constexpr qsizetype maxShownCharacters = (keptFiles + 1) * maxFileBytes;

private:
    QString pathOf(int age) const;
    /// Keeps other desks from writing here.
    OpResult takeOver();
    OpResult append(const QByteArray& line, bool waitsForDisk);
    void rotate();
    void readFile(const QString& path);
    void remember(const HistoryEntry& entry);
    void note(quint64 id, bool isDelivered);

    QString m_directory;
    std::unique_ptr<QLockFile> m_lock;
    QList<HistoryEntry> m_entries;
    qsizetype m_characters = 0; ///< Of the entries' requests.
    bool m_isLoaded = false;
};

} // namespace korvane::desk
