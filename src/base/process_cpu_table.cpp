// The arithmetic of processor shares between two samples.
#include "base/process_cpu_table.h"

#include <algorithm>
#include <utility>

namespace korvane {

namespace {

constexpr double notMeasured = -1;

} // namespace

void ProcessCpuTable::beginEnumeration(int processorCount)
{
    m_processorCount = std::max(processorCount, 1);
    ++m_enumeration;
    m_isFilling = isEmpty();
}

ProcessCpuTable::Nanoseconds ProcessCpuTable::settlingTime(Nanoseconds now) const
{
    if (isEmpty())
        return Nanoseconds::zero();
    return std::max(m_filledAt + minimumInterval - now, Nanoseconds::zero());
}

double ProcessCpuTable::record(const Reading& reading)
{
    const Sample current{reading.cpuTime, reading.takenAt};
    const auto found = m_processes.find(reading.pid);
    if (m_isFilling)
        m_filledAt = reading.takenAt;
    if (found == m_processes.end() || found->startTime != reading.startTime) {
        m_processes.insert(reading.pid, {reading.startTime, current, current, m_enumeration});
        return notMeasured;
    }

    TrackedProcess& entry = *found;
    entry.enumeration = m_enumeration;
    if (current.takenAt - entry.latest.takenAt >= minimumInterval)
        entry.baseline = std::exchange(entry.latest, current);

    if (current.takenAt - entry.baseline.takenAt < minimumInterval)
        return notMeasured;
    const auto elapsed = std::chrono::duration<double>(current.takenAt - entry.baseline.takenAt);
    const auto used = std::chrono::duration<double>(current.cpuTime - entry.baseline.cpuTime);
    return std::clamp(100.0 * used.count() / (elapsed.count() * m_processorCount), 0.0, 100.0);
}

void ProcessCpuTable::endEnumeration()
{
    m_processes.removeIf([this](QHash<quint32, TrackedProcess>::iterator entry) {
        return entry->enumeration != m_enumeration;
    });
}

} // namespace korvane
