// A scripted platform: what each operation answers is set by the test, and calls are counted.
#pragma once

#include "base/system_records.h"
#include "platform/file_holders.h"

#include <QHash>
#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>

namespace korvane::fake {

/// The answer of an enumeration: `records`, or an empty list with `error` when that is set.
template <typename Record> struct Listing
{
    QList<Record> records;
    QString error;
    int calls = 0;

    QList<Record> answer(QString* errorOut)
    {
        ++calls;
        if (errorOut != nullptr && !error.isEmpty())
            *errorOut = error;
        return error.isEmpty() ? records : QList<Record>();
    }
};

/// A write operation's answer, and what it was called with, one line a call: the operation's
/// name and its arguments, separated by blanks.
struct Platform
{
    Listing<ProcessSnapshot> processes;
    Listing<StartupItem> startupItems;
    Listing<StartupItem> scheduledTasks;
    Listing<StartupItem> shellExtensions;
    Listing<NetConnection> connections;
    Listing<UninstallEntry> uninstallEntries;
    Listing<ServiceItem> services;

    /// Whether a process listing leaves processor samples behind, as a real back end does.
    bool processesLeaveCpuSamples = true;

    QHash<QString, QStringList> dependents;
    QHash<QString, QStringList> dependencies;
    QList<ProcessSnapshot> ancestors; ///< Of every process; the first is what peers run.
    QHash<quint32, QString> commandLines;
    QHash<QString, SignatureStatus> signatures; ///< Unknown where absent.
    QHash<QString, QString> signers;
    bool canVerify = true;
    QStringList verified; ///< Paths that reached verifyPlatform, in order.
    QStringList signersAsked;
    QList<SystemMetrics> metrics; ///< Answers of successive samples.
    int metricsSamples = 0;
    LockerProbe lockers{true, {}, {}};
    QStringList probed;                    ///< What the latest probe was of.
    QHash<QString, LockerProbe> lockersOf; ///< Instead of `lockers`, by the first path.
    std::function<bool()> peerMayAnswer = [] { return true; };
    bool startsWithSession = false;
    QPointer<QObject> notification; ///< What is shown: "title|text" is its name.
    QString elsewhere;              ///< Where other machines begin; nowhere when empty.
    std::function<bool()> canSync = [] { return true; };

    OpResult writeResult{true, {}};        ///< Answer of every write operation,
    QHash<QString, OpResult> writeResults; ///< but of those with a line here.
    QStringList writes;

    OpResult write(const QStringList& call)
    {
        writes.append(call.join(QLatin1Char(' ')));
        return writeResults.value(writes.last(), writeResult);
    }
};

/// The script of the process.
inline Platform& platform()
{
    static Platform script;
    return script;
}

/// Starts a test with an empty script.
inline void reset()
{
    platform() = {};
}

} // namespace korvane::fake
