// System calls on /proc, and the parsing of its texts.
#include "platform/linux/sys/proc_fs.h"

#include "platform/linux/sys/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

/// PF_KTHREAD of the kernel's task flags; stable, though in no user-space header.
constexpr quint64 kernelThreadFlag = 0x00200000;

constexpr QByteArrayView deletedMark(" (deleted)");

/// The blank-separated fields of a text, taken one after another.
class FieldReader
{
public:
    explicit FieldReader(QByteArrayView text) : m_rest(text) {}

    /// The next field; empty when no blank ends it, since it may be cut.
    QByteArrayView next()
    {
        const qsizetype end = m_rest.indexOf(' ');
        if (end < 0)
            return {};
        const QByteArrayView field = m_rest.first(end);
        m_rest = m_rest.sliced(end + 1);
        return field;
    }

    /// Skips `count` fields and parses the one after them.
    template <typename Number> bool read(int skipped, Number& number)
    {
        for (int i = 0; i < skipped; ++i)
            next();
        return parseNumber(next(), number);
    }

private:
    QByteArrayView m_rest;
};

ssize_t readFully(int fd, std::span<char> buffer)
{
    std::size_t used = 0;
    while (used < buffer.size()) {
        const ssize_t got = ::read(fd, buffer.data() + used, buffer.size() - used);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        used += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(used);
}

/// The first bytes of a file, as many as `buffer` takes; none, and errno, when it cannot be read.
std::optional<QByteArrayView> readAt(int directory, const char* path, std::span<char> buffer)
{
    const UniqueFd file(::openat(directory, path, O_RDONLY | O_CLOEXEC));
    const ssize_t size = file.isValid() ? readFully(file.get(), buffer) : -1;
    return size < 0 ? std::nullopt : std::optional(QByteArrayView(buffer.data(), size));
}

/// What is left of the file, at most `limit` bytes; none when it cannot be read.
std::optional<QByteArray> readUpTo(int fd, qsizetype limit)
{
    constexpr qsizetype step = qsizetype{64} * 1024;
    QByteArray content;
    while (content.size() < limit) {
        const qsizetype used = content.size();
        content.resize(used + std::min(step, limit - used));
        const std::span room(content.data() + used,
                             static_cast<std::size_t>(content.size() - used));
        const ssize_t size = readFully(fd, room);
        if (size < 0)
            return std::nullopt;
        content.truncate(used + size);
        if (static_cast<std::size_t>(size) < room.size())
            break;
    }
    return content;
}

/// Whether `path` leads to the file that `link` in `directory` leads to. Only the kernel's caches
/// are asked, which hold the path of every running file: a walk over a dead network or FUSE mount
/// would never return. None, and errno, on a failure of this program's own.
std::optional<bool> leadsToSameFile(int directory, const char* link, const char* path)
{
    constexpr int cachedOnly = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT;
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_CACHED;
    const UniqueFd named(
        static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
    if (!named.isValid() && isOwnFailure(errno))
        return std::nullopt;
    struct statx running = {};
    struct statx found = {};
    return named.isValid() &&
           ::statx(named.get(), "", AT_EMPTY_PATH | cachedOnly, STATX_INO, &found) == 0 &&
           ::statx(directory, link, cachedOnly, STATX_INO, &running) == 0 &&
           running.stx_ino == found.stx_ino && running.stx_dev_major == found.stx_dev_major &&
           running.stx_dev_minor == found.stx_dev_minor;
}

} // namespace

std::optional<ProcStat> parseProcStat(QByteArrayView content)
{
    // The name stands in brackets and may hold brackets itself: the last one closes it.
    const qsizetype open = content.indexOf('(');
    const qsizetype close = content.lastIndexOf(QByteArrayView(") "));
    if (open < 0 || close < open)
        return std::nullopt;

    ProcStat stat;
    stat.shortName = content.sliced(open + 1, close - open - 1);
    FieldReader fields(content.sliced(close + 2));
    quint64 flags = 0;
    quint64 userTicks = 0;
    quint64 systemTicks = 0;
    const QByteArrayView state = fields.next();
    const bool whole = fields.read(0, stat.parentPid) && fields.read(4, flags) &&
                       fields.read(4, userTicks) && fields.read(0, systemTicks) &&
                       fields.read(6, stat.startTicks);
    if (!whole)
        return std::nullopt;
    stat.hasEnded = state == "Z" || state == "X";
    stat.isKernelThread = (flags & kernelThreadFlag) != 0;
    stat.cpuTicks = userTicks + systemTicks;
    return stat;
}

QString commandLineFromCmdline(QByteArrayView content)
{
    while (content.endsWith('\0'))
        content.chop(1);
    QByteArray line = content.toByteArray();
    line.replace('\0', ' ');
    return textFromSystem(line);
}

bool isOwnFailure(int errorNumber)
{
    return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM;
}

std::optional<QByteArray> readSystemFile(const char* path, qsizetype limit)
{
    // Where something else than a file has come in its place, opening it does not wait.
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return file.isValid() ? readUpTo(file.get(), limit) : std::nullopt;
}

DirectoryHandle openDirectory(int at, const char* path)
{
    UniqueFd fd(::openat(at, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DirectoryHandle directory(fd.isValid() ? ::fdopendir(fd.get()) : nullptr);
    if (directory != nullptr)
        fd.release();
    return directory;
}

UniqueFd::~UniqueFd()
{
    if (m_fd < 0)
        return;
    const int errorNumber = errno;
    ::close(m_fd);
    errno = errorNumber;
}

void CloseDirectory::operator()(DIR* directory) const
{
    const int errorNumber = errno;
    ::closedir(directory);
    errno = errorNumber;
}

ProcFs::ProcFs(const char* root) : m_directory(::opendir(root)) {}

std::optional<quint32> ProcFs::nextPid()
{
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(m_directory.get());
        if (entry == nullptr)
            return std::nullopt;
        quint32 pid = 0;
        if (parseNumber(QByteArrayView(entry->d_name), pid))
            return pid;
    }
}

const char* ProcFs::pathOf(Task task, const char* name)
{
    const auto size = m_path.size();
    static_cast<void>(task.tid == 0 ? std::snprintf(m_path.data(), size, "%u/%s", task.pid, name)
                                    : std::snprintf(m_path.data(), size, "%u/task/%u/%s", task.pid,
                                                    task.tid, name));
    return m_path.data();
}

std::optional<Task> ProcFs::livingTask(quint32 pid) const
{
    std::array<char, 32> path{};
    static_cast<void>(std::snprintf(path.data(), path.size(), "%u/task", pid));
    // Its links are two and one for each thread: that spares most processes the look inside.
    constexpr nlink_t linksOfOneThread = 3;
    struct stat status = {};
    const bool isKnown = ::fstatat(descriptor(), path.data(), &status, 0) == 0;
    if (!isKnown && isOwnFailure(errno))
        return std::nullopt;
    if (!isKnown || status.st_nlink <= linksOfOneThread)
        return Task(pid);

    const DirectoryHandle threads = openDirectory(descriptor(), path.data());
    if (threads == nullptr)
        return isOwnFailure(errno) ? std::nullopt : std::optional(Task(pid));
    for (errno = 0; const dirent* entry = ::readdir(threads.get()); errno = 0) {
        quint32 tid = 0;
        if (!parseNumber(QByteArrayView(entry->d_name), tid))
            continue;
        const QByteArray name = QByteArray::number(tid) + "/stat";
        std::array<char, 2048> buffer{};
        const auto content = readAt(::dirfd(threads.get()), name.constData(), buffer);
        if (!content && isOwnFailure(errno))
            return std::nullopt;
        const auto stat = content ? parseProcStat(*content) : std::nullopt;
        if (stat && !stat->hasEnded)
            return Task(pid, tid == pid ? 0 : tid);
    }
    return isOwnFailure(errno) ? std::nullopt : std::optional(Task(pid));
}

std::optional<QByteArrayView> ProcFs::readFile(Task task, const char* name)
{
    return readFileAt(descriptor(), pathOf(task, name));
}

std::optional<QByteArrayView> ProcFs::readFileAt(int directory, const char* path)
{
    return readAt(directory, path, m_buffer);
}

std::optional<QByteArray> ProcFs::readWholeFile(Task task, const char* name, qsizetype limit)
{
    const UniqueFd file(::openat(descriptor(), pathOf(task, name), O_RDONLY | O_CLOEXEC));
    if (!file.isValid())
        return std::nullopt;
    return readUpTo(file.get(), limit);
}

DirectoryHandle ProcFs::openDirectoryOf(Task task, const char* name)
{
    return openDirectory(descriptor(), pathOf(task, name));
}

bool ProcFs::readLines(const char* path, const std::function<void(QByteArrayView)>& line)
{
    const UniqueFd file(::openat(::dirfd(m_directory.get()), path, O_RDONLY | O_CLOEXEC));
    if (!file.isValid())
        return false;
    std::size_t kept = 0; // bytes of a line that has not ended yet
    bool isCut = false;   // whether the beginning of that line has been shown
    for (;;) {
        const ssize_t got = readFully(file.get(), std::span(m_buffer).subspan(kept));
        if (got < 0)
            return false;
        const std::size_t used = kept + static_cast<std::size_t>(got);
        const bool isLast = used < m_buffer.size();
        QByteArrayView rest(m_buffer.data(), static_cast<qsizetype>(used));
        while (rest.contains('\n')) {
            const QByteArrayView whole = takeUntil(rest, '\n');
            if (!std::exchange(isCut, false))
                line(whole);
        }
        if (!rest.isEmpty() && (isLast || rest.size() == std::ssize(m_buffer))) {
            if (!std::exchange(isCut, true))
                line(rest);
            rest = {};
        }
        if (isLast)
            return true;
        kept = static_cast<std::size_t>(rest.size());
        std::copy(rest.begin(), rest.end(), m_buffer.begin());
    }
}

std::optional<qint64> ProcFs::residentPages(Task task)
{
    const auto content = readFile(task, "statm");
    if (!content)
        return std::nullopt;
    qint64 pages = 0;
    return FieldReader(*content).read(1, pages) ? std::optional(pages) : std::nullopt;
}

std::optional<ProcessIdentity> ProcFs::identity(Task task, const ProcStat& stat)
{
    return identityAt(descriptor(), pathOf(task, "exe"), stat);
}

std::optional<ProcessIdentity> ProcFs::identityAt(int directory, const char* path,
                                                  const ProcStat& stat)
{
    // The short name first: it lies in the buffer that the next call uses.
    ProcessIdentity identity{textFromSystem(stat.shortName), {}};
    if (stat.isKernelThread)
        return identity;
    if (const auto target = executableAt(directory, path)) {
        identity.exePath = textFromSystem(*target);
        identity.name = textFromSystem(target->sliced(target->lastIndexOf('/') + 1));
    } else if (isOwnFailure(errno)) {
        return std::nullopt;
    }
    return identity;
}

std::optional<QByteArrayView> ProcFs::executableAt(int directory, const char* path)
{
    // One byte is kept for the terminator that the check of the mark needs.
    const ssize_t size = ::readlinkat(directory, path, m_buffer.data(), m_buffer.size() - 1);
    if (size < 0)
        return std::nullopt;
    const QByteArrayView target(m_buffer.data(), size);
    if (!target.endsWith(deletedMark))
        return target;

    // A file may be called that without being deleted: then the path leads to the same file.
    m_buffer.at(static_cast<std::size_t>(size)) = '\0';
    const auto literal = leadsToSameFile(directory, path, m_buffer.data());
    if (!literal)
        return std::nullopt;
    return *literal ? target : target.chopped(deletedMark.size());
}

} // namespace korvane::linux_platform
