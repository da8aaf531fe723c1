// Connection enumeration: the kernel's sockets, joined with the processes that hold them.
#include "platform/network.h"

#include "platform/linux/network/socket_tables.h"
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace linux_platform;

/// A process that holds sockets.
struct Holder
{
    quint32 pid = 0;
    quint64 startTicks = 0;
    QString name;
};

/// The inode in "socket:[INODE]"; 0 for every other text.
quint64 socketInode(QByteArrayView target)
{
    constexpr QByteArrayView prefix("socket:[");
    quint64 inode = 0;
    if (target.startsWith(prefix) && target.endsWith(']'))
        parseNumber(target.sliced(prefix.size()).chopped(1), inode);
    return inode;
}

/// The processes that hold some sockets, found in one look through /proc.
class HolderSearch
{
public:
    HolderSearch(ProcFs& procFs, const std::vector<Socket>& sockets) : m_procFs(procFs)
    {
        m_wanted.reserve(sockets.size());
        for (const Socket& socket : sockets)
            m_wanted.push_back(socket.inode);
        std::sort(m_wanted.begin(), m_wanted.end());
    }

    /// Looks into every process; false, and errno, when this program cannot look.
    bool run()
    {
        if (!m_procFs.forEachPid([this](quint32 pid) { return lookInto(pid); }))
            return false;
        std::sort(m_held.begin(), m_held.end());
        m_held.erase(std::unique(m_held.begin(), m_held.end()), m_held.end());
        return true;
    }

    const std::vector<Holder>& found() const { return m_found; }

    /// Shows those that hold a socket, each once.
    template <typename Show> void forEachHolderOf(quint64 inode, Show show) const
    {
        auto held = std::lower_bound(m_held.cbegin(), m_held.cend(), Held(inode, 0));
        for (; held != m_held.cend() && held->first == inode; ++held)
            show(m_found.at(held->second));
    }

private:
    /// An inode of a socket, and the place in m_found of a process that has it open.
    using Held = std::pair<quint64, std::size_t>;

    /// Adds a process if it holds any of the sockets. One that has exited, or may not be looked
    /// into, holds none; false, and errno, when this program itself cannot look.
    bool lookInto(quint32 pid)
    {
        const auto isAnswer = addDescriptors(pid);
        if (!isAnswer)
            return false;
        if (*isAnswer)
            return true;
        const auto task = m_procFs.livingTask(pid);
        return task && (task->tid == 0 || addDescriptors(*task));
    }

    /// Whether a process is another user's.
    bool isOthers(quint32 pid) const
    {
        const QByteArray path = QByteArray::number(pid);
        struct stat status = {};
        return ::fstatat(m_procFs.descriptor(), path.constData(), &status, 0) == 0 &&
               status.st_uid != ::geteuid();
    }

    /// Adds the sockets that a task has open. False where it showed no descriptor, as one does that
    /// has ended, or was closed though it is no other user's, as the kernel then closes it; none, and
    /// errno, when this program itself cannot look.
    std::optional<bool> addDescriptors(Task task)
    {
        const DirectoryHandle directory = m_procFs.openDirectoryOf(task, "fd");
        if (directory == nullptr)
            return isOwnFailure(errno) ? std::nullopt
                                       : std::optional(errno == EACCES && isOthers(task.pid));
        const std::size_t before = m_held.size();
        bool hasShown = false;
        std::array<char, 64> target{};
        for (errno = 0; const dirent* entry = ::readdir(directory.get()); errno = 0) {
            if (entry->d_name[0] == '.')
                continue;
            hasShown = true;
            const ssize_t size =
                ::readlinkat(::dirfd(directory.get()), entry->d_name, target.data(), target.size());
            if (size < 0 && isOwnFailure(errno))
                return std::nullopt;
            const quint64 inode = size < 0 ? 0 : socketInode({target.data(), size});
            if (inode != 0 && std::binary_search(m_wanted.cbegin(), m_wanted.cend(), inode))
                m_held.emplace_back(inode, m_found.size());
        }
        if (isOwnFailure(errno))
            return std::nullopt;
        if (m_held.size() == before)
            return hasShown;

        auto holder = identify(task, ::dirfd(directory.get()));
        if (holder)
            m_found.push_back(*std::move(holder));
        else if (isOwnFailure(errno))
            return std::nullopt;
        else
            m_held.resize(before);
        return true;
    }

    /// The process that an open directory PID/fd or PID/task/TID/fd belongs to: by that handle, since
    /// the PID may be another's by now. None, and errno, when it is gone or this program cannot look.
    std::optional<Holder> identify(Task task, int descriptors)
    {
        const char* statPath = task.tid == 0 ? "../stat" : "../../../stat";
        const auto content = m_procFs.readFileAt(descriptors, statPath);
        if (!content)
            return std::nullopt;
        const auto stat = parseProcStat(*content);
        if (!stat) {
            errno = EPROTO;
            return std::nullopt;
        }
        auto identity = m_procFs.identityAt(descriptors, "../exe", *stat);
        if (!identity)
            return std::nullopt;
        return Holder{task.pid, stat->startTicks, std::move(identity->name)};
    }

    ProcFs& m_procFs;
    std::vector<quint64> m_wanted; // sorted
    std::vector<Holder> m_found;
    std::vector<Held> m_held; // sorted once all have been looked into
};

/// A row for each process that holds the socket; one without an owner when none is known.
void appendRows(const Socket& socket, const HolderSearch& holders, QList<NetConnection>& rows)
{
    const qsizetype before = rows.size();
    holders.forEachHolderOf(socket.inode, [&](const Holder& holder) {
        NetConnection row = socket.endpoint;
        row.pid = holder.pid;
        row.processName = holder.name;
        rows.append(row);
    });
    if (rows.size() == before)
        rows.append(socket.endpoint);
}

} // namespace

QList<NetConnection> platform::listConnections(ShownProcesses& shown, QString* error)
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
    HolderSearch holders(procFs, sockets);
    if (!procFs.isOpen() || !holders.run())
        return fail(u"无法读取 /proc: %1"_s.arg(qt_error_string(errno)));
    for (const Holder& holder : holders.found())
        shown.insert(holder.pid, holder.startTicks);
    QList<NetConnection> rows;
    rows.reserve(static_cast<qsizetype>(sockets.size()));
    for (const Socket& socket : sockets)
        appendRows(socket, holders, rows);
    return rows;
}

} // namespace korvane
