// Connection enumeration: the kernel's sockets, joined with the processes that hold them.
#include "core/net_monitor_service.h"

#include "platform/linux/proc_fs.h"
#include "platform/linux/seen_processes.h"
#include "platform/linux/socket_tables.h"
#include "platform/linux/text.h"

#include <QHash>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include <dirent.h>
#include <unistd.h>

namespace korvane {

namespace {

using namespace linux_platform;

/// An inode of a socket, and the PID of a process that has it open.
using Holder = std::pair<quint64, quint32>;

/// The inode in "socket:[INODE]"; 0 for every other text.
quint64 socketInode(QByteArrayView target)
{
    constexpr QByteArrayView prefix("socket:[");
    quint64 inode = 0;
    if (target.startsWith(prefix) && target.endsWith(']'))
        parseNumber(target.sliced(prefix.size()).chopped(1), inode);
    return inode;
}

/// Appends the sockets that a process has open. One that has exited, or may not be looked into,
/// has none; false, and errno, when this program itself cannot look.
bool appendHeldSockets(const ProcFs& procFs, quint32 pid, std::vector<Holder>& holders)
{
    const QByteArray path = QByteArray::number(pid) + "/fd";
    const DirectoryHandle directory = openDirectory(procFs.descriptor(), path.constData());
    if (directory == nullptr)
        return !isOwnFailure(errno);
    std::array<char, 64> target{};
    while (const dirent* entry = ::readdir(directory.get())) {
        const ssize_t size =
            ::readlinkat(::dirfd(directory.get()), entry->d_name, target.data(), target.size());
        const quint64 inode = size < 0 ? 0 : socketInode({target.data(), size});
        if (inode != 0)
            holders.emplace_back(inode, pid);
    }
    return true;
}

/// Every process's open sockets, sorted, each once a process; none, and errno, when this program
/// cannot look.
std::optional<std::vector<Holder>> readHolders(ProcFs& procFs)
{
    std::vector<Holder> holders;
    const auto append = [&](quint32 pid) { return appendHeldSockets(procFs, pid, holders); };
    if (!procFs.forEachPid(append))
        return std::nullopt;
    std::sort(holders.begin(), holders.end());
    holders.erase(std::unique(holders.begin(), holders.end()), holders.end());
    return holders;
}

/// Names of processes, each read once; none for a process that is gone.
class ProcessNames
{
public:
    explicit ProcessNames(ProcFs& procFs) : m_procFs(procFs) {}

    const std::optional<QString>& of(quint32 pid)
    {
        const auto known = m_names.constFind(pid);
        return *(known != m_names.cend() ? known : m_names.insert(pid, read(pid)));
    }

private:
    std::optional<QString> read(quint32 pid)
    {
        const auto content = m_procFs.readFile(pid, "stat");
        const auto stat = content ? parseProcStat(*content) : std::nullopt;
        if (!stat)
            return std::nullopt;
        seenProcesses().insert(pid, stat->startTicks);
        return m_procFs.identity(pid, *stat).name;
    }

    ProcFs& m_procFs;
    QHash<quint32, std::optional<QString>> m_names;
};

/// A row for each process that holds the socket; one without an owner when none is known.
void appendRows(const Socket& socket, const std::vector<Holder>& holders, ProcessNames& names,
                QList<NetConnection>& rows)
{
    const qsizetype before = rows.size();
    NetConnection row = socket.endpoint;
    auto holder = std::lower_bound(holders.cbegin(), holders.cend(), Holder(socket.inode, 0));
    for (; holder != holders.cend() && holder->first == socket.inode; ++holder) {
        const std::optional<QString>& name = names.of(holder->second);
        if (!name)
            continue;
        row.pid = holder->second;
        row.processName = *name;
        rows.append(row);
    }
    if (rows.size() == before)
        rows.append(socket.endpoint);
}

} // namespace

QList<NetConnection> NetMonitorService::enumPlatform(QString* error) const
{
    const auto fail = [error](const QString& text) {
        if (error != nullptr)
            *error = text;
        return QList<NetConnection>();
    };
    std::vector<Socket> sockets;
    const QString tableError = readSocketTables(sockets);
    if (!tableError.isEmpty())
        return fail(tableError);

    ProcFs procFs;
    const auto holders = procFs.isOpen() ? readHolders(procFs) : std::nullopt;
    if (!holders)
        return fail(QStringLiteral("无法读取 /proc: %1").arg(qt_error_string(errno)));
    ProcessNames names(procFs);
    QList<NetConnection> rows;
    rows.reserve(static_cast<qsizetype>(sockets.size()));
    for (const Socket& socket : sockets)
        appendRows(socket, *holders, names, rows);
    return rows;
}

} // namespace korvane
