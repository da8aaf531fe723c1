// The service control manager: handles, what it answers, and its errors in words.
#pragma once

#include "base/system_records.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/limited_call.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstddef>
#include <span>
#include <type_traits>
#include <vector>

namespace korvane::windows_platform {

/// The manager, or one of its services.
using ServiceHandle = std::unique_ptr<SC_HANDLE__, CloseBy<CloseServiceHandle>>;

/// The service control manager of this machine, or a service of it; null on failure (GetLastError()).
ServiceHandle openManager(DWORD access = SC_MANAGER_CONNECT);
ServiceHandle openService(SC_HANDLE manager, const QString& name, DWORD access);

/// Requests that askManager() waits for, or has given up while the manager goes on with them.
inline std::atomic<int> managerRequests;

/// What `work` returns, which calls the manager: the manager itself may wait for a service. None when it
/// takes longer than `limit`, or where eight given up before go on still. `work` owns whatever it touches;
/// the flag that it is given says that it was given up, and has to change nothing more.
template <typename Work> auto askManager(std::chrono::milliseconds limit, Work work)
{
    using Result = std::invoke_result_t<Work, const std::atomic<bool>&>;
    constexpr int mostRequests = 8;
    if (managerRequests >= mostRequests)
        return std::optional<Result>();
    const auto isGivenUp = std::make_shared<std::atomic<bool>>(false);
    auto result = callWithin<Result>(limit, [work, isGivenUp] {
        ++managerRequests;
        Result answer = work(*isGivenUp);
        --managerRequests;
        return answer;
    });
    *isGivenUp = true;
    return result;
}

/// What a call wrote: records, and behind them the texts that they point to. No more is read than it
/// holds, whatever the records say.
class ServiceAnswer
{
public:
    /// Asks by `call(buffer, size, &needed)`, again with more memory while that is too small. Empty on
    /// failure (GetLastError()).
    template <typename Call> static ServiceAnswer of(Call call)
    {
        for (DWORD size = usualSize; size <= largestSize;) {
            ServiceAnswer answer(size);
            DWORD needed = 0;
            if (call(answer.buffer(), size, &needed) != FALSE)
                return answer;
            const DWORD error = GetLastError();
            if (error != ERROR_INSUFFICIENT_BUFFER && error != ERROR_MORE_DATA)
                break;
            size = needed > size ? needed : size * 2;
        }
        return ServiceAnswer(0);
    }

    static constexpr DWORD usualSize = 8 * 1024;
    static constexpr DWORD largestSize = 256 * 1024; ///< The manager fills no more.

    explicit ServiceAnswer(DWORD size) : m_memory(size) {}

    BYTE* buffer() { return reinterpret_cast<BYTE*>(m_memory.data()); }
    bool isEmpty() const { return m_memory.empty(); }

    /// The first `count` records; none where it does not hold so many.
    template <typename Record> std::span<const Record> records(std::size_t count) const
    {
        if (count > m_memory.size() / sizeof(Record))
            return {};
        return {reinterpret_cast<const Record*>(m_memory.data()), count};
    }

    /// The only record; null when it is empty.
    template <typename Record> const Record* record() const
    {
        const auto all = records<Record>(1);
        return all.empty() ? nullptr : all.data();
    }

    /// A text that a record points to; empty where it lies elsewhere.
    QString text(const wchar_t* from) const;

    /// Texts one after the other, the last one empty.
    QStringList texts(const wchar_t* from) const;

private:
    std::span<const wchar_t> behind(const wchar_t* from) const;

    std::vector<std::byte> m_memory;
};

ServiceState serviceStateFrom(DWORD state);
ServiceStartType startTypeFrom(DWORD startType, bool isDelayed);

/// QueryServiceConfigW, of a handle with SERVICE_QUERY_CONFIG: a QUERY_SERVICE_CONFIGW.
ServiceAnswer configurationOf(SC_HANDLE service);

/// Whether a service that starts automatically waits until others have (SERVICE_QUERY_CONFIG).
bool isDelayed(SC_HANDLE service);

/// Why a call on a service failed, with the error's number.
QString serviceErrorText(DWORD code);

/// The services that depend on one that was opened with SERVICE_ENUMERATE_DEPENDENTS, by name: all, or
/// those that are not stopped. Empty on failure too, with the error in `error`.
QStringList dependentsOf(SC_HANDLE service, bool onlyActive, DWORD* error);

} // namespace korvane::windows_platform
