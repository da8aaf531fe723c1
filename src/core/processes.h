// The service that lists running processes.
#pragma once

#include "base/process_cpu_table.h"
#include "base/singleton.h"
#include "base/system_records.h"

#include <QObject>

namespace korvane {

/// Lists processes through the platform layer. Main thread only.
class ProcessService : public QObject, public Singleton<ProcessService>
{
    Q_OBJECT

public:
    /// All processes, in the back end's order. A failure is an empty list and lastError().
    QList<ProcessSnapshot> listAllProcesses() const;

    /// The full command line of process `pid`; empty when it cannot be read.
    static QString commandLine(unsigned int pid);

    /// The failure text of the last listing; empty after a success.
    QString lastError() const { return m_lastError; }

    /// Whether an enumeration has left samples to measure processor use against.
    bool hasCpuSamples() const { return !m_cpuTable.isEmpty(); }

    /// How long to wait before a listing whose processor use is shown; zero where there are no
    /// samples, or old enough ones. No listing waits by itself.
    std::chrono::nanoseconds cpuSettlingTime() const;

private:
    friend class Singleton<ProcessService>;
    ProcessService() = default;

    /// Platform operation: every process visible to this one. On failure writes a short text to
    /// `error` (may be null) and returns an empty list.
    QList<ProcessSnapshot> enumPlatform(QString* error) const;

    mutable QString m_lastError;
    mutable ProcessCpuTable m_cpuTable;
};

} // namespace korvane
