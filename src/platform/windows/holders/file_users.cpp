// Asks the kernel and the Restart Manager.
#include "platform/windows/holders/file_users.h"

#include "platform/windows/sys/system_library.h"
#include "platform/windows/sys/text.h"

#include <algorithm>
#include <array>

#include <restartmanager.h>
#include <winternl.h>

namespace korvane::windows_platform {

namespace {

constexpr std::size_t maxUsers = std::size_t{16} * 1024;

/// A session of the Restart Manager: there are 64 for all of a user's programs.
class Session
{
public:
    Session()
    {
        std::array<wchar_t, CCH_RM_SESSION_KEY + 1> key{};
        m_isOpen = RmStartSession(&m_session, 0, key.data()) == ERROR_SUCCESS;
    }
    ~Session()
    {
        if (m_isOpen)
            RmEndSession(m_session);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    Session(Session&&) = delete;
    Session& operator=(Session&&) = delete;

    bool isOpen() const { return m_isOpen; }
    DWORD get() const { return m_session; }

private:
    DWORD m_session = 0;
    bool m_isOpen = false;
};

std::vector<RM_PROCESS_INFO> listOf(const Session& session)
{
    constexpr int maxTries = 4; // More processes may use it meanwhile.
    std::vector<RM_PROCESS_INFO> found(16);
    for (int tries = 0; tries < maxTries; ++tries) {
        UINT needed = 0;
        auto count = static_cast<UINT>(found.size());
        DWORD reasons = 0;
        const DWORD result = RmGetList(session.get(), &needed, &count, found.data(), &reasons);
        if (result == ERROR_SUCCESS) {
            found.resize(count);
            return found;
        }
        if (result != ERROR_MORE_DATA || needed > maxUsers)
            break;
        found.resize(needed + needed / 4 + 1);
    }
    return {};
}

} // namespace

std::optional<std::vector<quint32>> usersOf(HANDLE file)
{
    using QueryFile = NTSTATUS(NTAPI*)(HANDLE, IO_STATUS_BLOCK*, void*, ULONG, int);
    constexpr int processIdsUsingFile = 47;
    constexpr auto tooSmall = static_cast<NTSTATUS>(0xc0000004); // STATUS_INFO_LENGTH_MISMATCH
    static const auto query = systemFunction<QueryFile>(L"ntdll.dll", "NtQueryInformationFile");
    if (query == nullptr)
        return std::nullopt;
    for (std::size_t room = 64; room <= maxUsers; room *= 4) {
        std::vector<ULONG_PTR> list(1 + room); // how many, in its first half, and the PIDs
        IO_STATUS_BLOCK status{};
        const NTSTATUS result =
            query(file, &status, list.data(), static_cast<ULONG>(list.size() * sizeof(ULONG_PTR)),
                  processIdsUsingFile);
        if (result == tooSmall)
            continue;
        if (result < 0)
            return std::nullopt;
        const std::size_t count = std::min<std::size_t>(static_cast<ULONG>(list[0]), room);
        std::vector<quint32> users;
        for (std::size_t i = 1; i <= count; ++i)
            users.push_back(static_cast<quint32>(list[i]));
        return users;
    }
    return std::nullopt;
}

std::vector<NamedUser> namedUsersOf(const QList<QString>& files)
{
    std::vector<LPCWSTR> names;
    for (const QString& file : files)
        names.push_back(wide(file));
    const Session session;
    if (names.empty() || !session.isOpen() ||
        RmRegisterResources(session.get(), static_cast<UINT>(names.size()), names.data(), 0,
                            nullptr, 0, nullptr) != ERROR_SUCCESS)
        return {};
    std::vector<NamedUser> users;
    for (const RM_PROCESS_INFO& found : listOf(session)) {
        const FILETIME started = found.Process.ProcessStartTime;
        users.push_back({found.Process.dwProcessId,
                         (quint64{started.dwHighDateTime} << 32) | started.dwLowDateTime,
                         fromBuffer(found.strAppName), fromBuffer(found.strServiceShortName)});
    }
    return users;
}

} // namespace korvane::windows_platform
