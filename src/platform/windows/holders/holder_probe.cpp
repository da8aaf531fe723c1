// Joins what the kernel, the Restart Manager and the table of handles say.
#include "platform/windows/holders/holder_probe.h"

#include "platform/windows/files/local_path.h"
#include "platform/windows/holders/debug_privilege.h"
#include "platform/windows/holders/file_users.h"
#include "platform/windows/holders/handle_table.h"
#include "platform/windows/holders/limited_questions.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/text.h"

#include <QFileInfo>

#include <algorithm>
#include <array>
#include <set>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr quint32 systemPid = 4;

/// A path that is asked about, kept open meanwhile.
struct Target
{
    QString path;  ///< As it was given.
    QString local; ///< What it leads to.
    UniqueHandle handle;
    OpenFile file;
    bool isFolder = false;
};

using Use = std::pair<quint32, QString>; ///< A process, and which of the paths it uses.

/// A process whose handles can be duplicated.
struct OpenedProcess
{
    std::shared_ptr<void> handle;
    quint64 startTime = 0;
};

/// Whether it is the system's directory, or holds it: whose handles are closed there loses data, or brings
/// the machine down.
bool holdsSystem(const OpenFile& file)
{
    std::array<wchar_t, MAX_PATH> directory{};
    if (GetSystemDirectoryW(directory.data(), directory.size()) == 0)
        return false;
    const UniqueHandle handle =
        owned(CreateFileW(directory.data(), FILE_READ_ATTRIBUTES,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                          OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    const auto system = handle ? describe(handle.get(), Detail::Path) : std::nullopt;
    return system && (isSameFile(*system, file) || isBelow(*system, file));
}

/// False with a reason where it cannot be opened; a path that is gone is no target, and no error.
bool addTarget(const QString& path, std::vector<Target>& targets, QString& error)
{
    const auto local = localPath(path);
    if (!local) {
        error = u"只能查询本机磁盘上的路径: %1"_s.arg(path);
        return false;
    }
    UniqueHandle handle = owned(
        CreateFileW(wide(extendedPath(*local)), FILE_READ_ATTRIBUTES,
                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    const DWORD reason = GetLastError();
    if (handle == nullptr) {
        if (reason != ERROR_FILE_NOT_FOUND && reason != ERROR_PATH_NOT_FOUND)
            error = u"无法查询 %1: %2"_s.arg(path, errorText(reason));
        return error.isEmpty();
    }
    const auto file = describe(handle.get(), Detail::Path);
    FILE_STANDARD_INFO info{};
    if (!file ||
        GetFileInformationByHandleEx(handle.get(), FileStandardInfo, &info, sizeof info) == FALSE) {
        error = u"不是磁盘上的文件或文件夹: %1"_s.arg(path);
        return false;
    }
    if (holdsSystem(*file)) {
        error = u"不解除系统目录的占用: %1"_s.arg(path);
        return false;
    }
    targets.push_back({path, *local, std::move(handle), *file, info.Directory != FALSE});
    return true;
}

/// Looks for the targets among the handles of processes.
class HandleSearch
{
public:
    explicit HandleSearch(const std::vector<Target>& targets) : m_targets(targets) {}

    /// Of the processes `pids` only, where they are known.
    void run(const std::optional<std::set<quint32>>& pids, bool seesAll, Holders& found)
    {
        std::vector<TableHandle> handles = openFileHandles(m_targets.front().handle.get());
        if (handles.empty()) {
            if (!pids)
                found.error = u"无法读取系统的句柄表"_s;
            return;
        }
        std::erase_if(handles, [&](const TableHandle& handle) {
            return handle.pid == 0 || (pids && !pids->contains(handle.pid)) || isNoHolder(handle);
        });
        std::erase_if(handles, [&](const TableHandle& handle) { return !canOpen(handle.pid); });
        if (!pids && !seesAll)
            found.unseen += m_closedProcesses;
        // What may be the end of a pipe comes last, so that a thread that is stuck costs nothing else.
        std::stable_partition(handles.begin(), handles.end(), [](const TableHandle& handle) {
            static constexpr std::array<quint32, 6> pipes{0x0012019f, 0x00120189, 0x00120196,
                                                          0x001a019f, 0x0016019f, 0x00100000};
            return std::find(pipes.begin(), pipes.end(), handle.access) == pipes.end();
        });
        ask(handles, found);
    }

private:
    /// Whether it is open for this search, or is one of this program's streams: while its other thread reads
    /// from a pipe, a question about that hangs.
    bool isNoHolder(const TableHandle& handle) const
    {
        if (handle.pid != GetCurrentProcessId())
            return false;
        const HANDLE own = asHandle(handle.handle);
        return own == GetStdHandle(STD_INPUT_HANDLE) || own == GetStdHandle(STD_OUTPUT_HANDLE) ||
               own == GetStdHandle(STD_ERROR_HANDLE) ||
               std::any_of(m_targets.begin(), m_targets.end(),
                           [own](const Target& target) { return own == target.handle.get(); });
    }

    bool canOpen(quint32 pid)
    {
        const auto known = m_processes.constFind(pid);
        if (known != m_processes.cend())
            return known->handle != nullptr;
        UniqueHandle handle =
            openProcess(pid, PROCESS_DUP_HANDLE | PROCESS_QUERY_LIMITED_INFORMATION);
        const bool isRefused = handle == nullptr && GetLastError() == ERROR_ACCESS_DENIED;
        // The kernel alone knows what the system's own process holds.
        m_closedProcesses += isRefused && pid != systemPid ? 1 : 0;
        const auto startTime = handle ? creationTime(handle.get()) : std::nullopt;
        OpenedProcess& process = m_processes[pid];
        if (startTime)
            process = {std::move(handle), *startTime};
        return startTime.has_value();
    }

    void ask(const std::vector<TableHandle>& handles, Holders& found)
    {
        std::vector<HandleKey> keys;
        std::vector<std::shared_ptr<void>> processes;
        for (const TableHandle& handle : handles) {
            const OpenedProcess& process = m_processes[handle.pid];
            keys.push_back({handle.pid, process.startTime, handle.handle});
            processes.push_back(process.handle);
        }
        const Answers answers = askWithLimit(keys, question(keys, std::move(processes)));
        found.unseen += answers.unasked;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (!answers.files[i])
                continue;
            for (const Target& target : m_targets) {
                if (isHeldBy(target, *answers.files[i]))
                    found.held.append({.pid = keys[i].pid,
                                       .startTime = keys[i].startTime,
                                       .handle = keys[i].handle,
                                       .file = identityOf(*answers.files[i]),
                                       .path = target.path});
            }
        }
    }

    Question question(const std::vector<HandleKey>& keys,
                      std::vector<std::shared_ptr<void>> processes) const
    {
        const bool hasFolder = std::any_of(m_targets.begin(), m_targets.end(),
                                           [](const Target& target) { return target.isFolder; });
        const Detail detail = hasFolder ? Detail::Path : Detail::Identity;
        return [keys, detail, processes = std::move(processes)](std::size_t index) {
            return describeIn(processes[index].get(), keys[index].handle, detail);
        };
    }

    static bool isHeldBy(const Target& target, const OpenFile& file)
    {
        return isSameFile(file, target.file) || (target.isFolder && isBelow(file, target.file));
    }

    const std::vector<Target>& m_targets;
    QMap<quint32, OpenedProcess> m_processes;
    std::size_t m_closedProcesses = 0;
};

void nameProcess(quint32 pid, const NamedUser& named, Holders& found)
{
    ProcessInfo process;
    process.pid = pid;
    process.appName = named.name;
    process.serviceName = named.serviceName;
    const UniqueHandle handle = openProcess(pid);
    process.exePath = handle ? imagePath(handle.get()) : QString();
    if (process.appName.isEmpty())
        process.appName = QFileInfo(process.exePath).fileName();
    DWORD session = 0;
    if (ProcessIdToSessionId(pid, &session) != FALSE)
        process.sessionId = session;
    found.processes.insert(pid, process);
}

/// Adds the processes that use a target by something else than handles that can be reached.
void addUsersWithoutHandle(const std::set<Use>& uses, Holders& found)
{
    for (const Use& use : uses) {
        const bool isFound =
            std::any_of(found.held.begin(), found.held.end(), [&](const platform::HeldFile& held) {
                return held.pid == use.first && held.path == use.second;
            });
        if (!isFound && use.first != GetCurrentProcessId()) // whose use is the question itself
            found.held.append({.pid = use.first, .path = use.second});
    }
}

} // namespace

Holders findHolders(const QList<QString>& paths)
{
    const DebugPrivilege privilege;
    Holders found;
    std::vector<Target> targets;
    for (const QString& path : paths) {
        if (!addTarget(path, targets, found.error))
            return found;
    }
    if (targets.empty())
        return found;

    std::set<Use> uses;
    QMap<quint32, NamedUser> names;
    bool isKnown = true;
    for (const Target& target : targets) {
        const auto direct = usersOf(target.handle.get());
        isKnown = isKnown && direct && !target.isFolder;
        for (const quint32 pid : direct.value_or(std::vector<quint32>()))
            uses.emplace(pid, target.path);
        if (target.isFolder)
            continue;
        for (const NamedUser& user : namedUsersOf({target.local})) {
            uses.emplace(user.pid, target.path);
            names.insert(user.pid, user);
        }
    }
    std::optional<std::set<quint32>> pids;
    if (isKnown) {
        pids.emplace({quint32{GetCurrentProcessId()}});
        for (const Use& use : uses)
            pids->insert(use.first);
    }
    HandleSearch(targets).run(pids, privilege.isEnabled(), found);
    addUsersWithoutHandle(uses, found);
    for (const platform::HeldFile& held : std::as_const(found.held)) {
        if (!found.processes.contains(held.pid))
            nameProcess(held.pid, names.value(held.pid), found);
    }
    return found;
}

} // namespace korvane::windows_platform
