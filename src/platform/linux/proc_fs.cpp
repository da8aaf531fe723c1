// System calls on /proc, and the parsing of its texts.
#include "platform/linux/proc_fs.h"

#include "platform/linux/text.h"

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
/// would never return.
bool leadsToSameFile(int directory, const char* link, const char* path)
{
    constexpr int cachedOnly = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT;
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_CACHED;
    const UniqueFd named(
        static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
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
    // Counted from the state, the first field after the name.
    const bool whole = fields.read(1, stat.parentPid) && fields.read(4, flags) &&
                       fields.read(4, userTicks) && fields.read(0, systemTicks) &&
                       fields.read(6, stat.startTicks);
    if (!whole)
        return std::nullopt;
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
    const int fd = ::openat(at, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DirectoryHandle directory(fd < 0 ? nullptr : ::fdopendir(fd));
    if (fd >= 0 && directory == nullptr)
        ::close(fd);
    return directory;
}

UniqueFd::~UniqueFd()
{
    if (m_fd >= 0)
        ::close(m_fd);
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

const char* ProcFs::pathOf(quint32 pid, const char* name)
{
    static_cast<void>(std::snprintf(m_path.data(), m_path.size(), "%u/%s", pid, name));
    return m_path.data();
}

std::optional<QByteArrayView> ProcFs::readFile(quint32 pid, const char* name)
{
    const UniqueFd file(
        ::openat(::dirfd(m_directory.get()), pathOf(pid, name), O_RDONLY | O_CLOEXEC));
    if (!file.isValid())
        return std::nullopt;
    const ssize_t size = readFully(file.get(), m_buffer);
    if (size < 0)
        return std::nullopt;
    return QByteArrayView(m_buffer.data(), size);
}

std::optional<QByteArray> ProcFs::readWholeFile(quint32 pid, const char* name, qsizetype limit)
{
    const UniqueFd file(
        ::openat(::dirfd(m_directory.get()), pathOf(pid, name), O_RDONLY | O_CLOEXEC));
    if (!file.isValid())
        return std::nullopt;
    return readUpTo(file.get(), limit);
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

std::optional<qint64> ProcFs::residentPages(quint32 pid)
{
    const auto content = readFile(pid, "statm");
    if (!content)
        return std::nullopt;
    qint64 pages = 0;
    return FieldReader(*content).read(1, pages) ? std::optional(pages) : std::nullopt;
}

std::optional<QByteArrayView> ProcFs::executable(quint32 pid)
{
    const int directory = ::dirfd(m_directory.get());
    const char* link = pathOf(pid, "exe");
    // One byte is kept for the terminator that the check of the mark needs.
    const ssize_t size = ::readlinkat(directory, link, m_buffer.data(), m_buffer.size() - 1);
    if (size < 0)
        return std::nullopt;
    const QByteArrayView target(m_buffer.data(), size);
    if (!target.endsWith(deletedMark))
        return target;

    // A file may be called that without being deleted: then the path leads to the same file.
    m_buffer.at(static_cast<std::size_t>(size)) = '\0';
    const bool literal = leadsToSameFile(directory, link, m_buffer.data());
    return literal ? target : target.chopped(deletedMark.size());
}

ProcessIdentity ProcFs::identity(quint32 pid, const ProcStat& stat)
{
    // The short name first: it lies in the buffer that the next call uses.
    ProcessIdentity identity{textFromSystem(stat.shortName), {}};
    if (stat.isKernelThread)
        return identity;
    if (const auto path = executable(pid)) {
        identity.exePath = textFromSystem(*path);
        identity.name = textFromSystem(path->sliced(path->lastIndexOf('/') + 1));
    }
    return identity;
}

} // namespace korvane::linux_platform
