// Reading /proc: the handles, and the parsers of what the kernel writes there.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <array>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include <dirent.h>

namespace korvane::linux_platform {

/// The fields of /proc/PID/stat that are used here.
struct ProcStat
{
    QByteArrayView shortName; ///< The kernel's name of the process; views the parsed text.
    quint32 parentPid = 0;
    bool hasEnded = false; ///< A zombie; of a process, its first thread: others may live on.
    bool isKernelThread = false;
    quint64 cpuTicks = 0;   ///< User and system time, in clock ticks.
    quint64 startTicks = 0; ///< Start after boot, in clock ticks.
};

/// Parses the text of /proc/PID/stat; none when it is damaged. The name may hold any bytes, blanks,
/// brackets and line feeds included.
std::optional<ProcStat> parseProcStat(QByteArrayView content);

/// The text of /proc/PID/cmdline as one line: arguments joined by one blank, trailing NULs dropped.
QString commandLineFromCmdline(QByteArrayView content);

/// Whether a file could not be read because of this program's own limits: to leave out what it
/// tells, as if it had vanished, would be a wrong answer.
bool isOwnFailure(int errorNumber);

/// A thread of a process, whose files stand in PID/task/TID; without a TID the process itself, whose
/// files stand in PID.
struct Task
{
    Task(quint32 process, quint32 thread = 0) : pid(process), tid(thread) {}

    quint32 pid;
    quint32 tid;
};

/// The first `limit` bytes of the file at `path`; none, and errno, when it cannot be read.
std::optional<QByteArray> readSystemFile(const char* path, qsizetype limit);

/// What a process is called.
struct ProcessIdentity
{
    QString name;    ///< The file name of its executable; the kernel's short name without one.
    QString exePath; ///< Empty when it has none or may not be asked for it.
};

/// An open file descriptor, closed with the object. That leaves errno as it is.
class UniqueFd
{
public:
    explicit UniqueFd(int fd = -1) : m_fd(fd) {}
    ~UniqueFd();
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }

    bool isValid() const { return m_fd >= 0; }
    int get() const { return m_fd; }

    /// The descriptor, which the caller closes from now on.
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

struct CloseDirectory
{
    void operator()(DIR* directory) const;
};
/// Closed with the object, which leaves errno as it is.
using DirectoryHandle = std::unique_ptr<DIR, CloseDirectory>;

/// The directory at `path`, seen from the directory `at`; none, and errno, when it cannot be opened.
DirectoryHandle openDirectory(int at, const char* path);

/// One /proc, or a directory of its shape: a directory handle and a buffer, both reused for every
/// process. Results are views into the buffer, valid until the next call. Failure leaves errno.
class ProcFs
{
public:
    /// Opens the directory; isOpen() tells whether that worked.
    explicit ProcFs(const char* root = "/proc");

    bool isOpen() const { return m_directory != nullptr; }

    /// The next process in the directory's order, none at the end (errno 0) or on an error.
    std::optional<quint32> nextPid();

    /// Shows every process to `look` while that returns true. False, and errno, when it did not, and
    /// when this is no list of processes: this program is one itself.
    template <typename Look> bool forEachPid(Look look)
    {
        bool sawProcess = false;
        while (const auto pid = nextPid()) {
            sawProcess = true;
            if (!look(*pid))
                return false;
        }
        if (errno == 0 && !sawProcess)
            errno = ENOENT;
        return errno == 0;
    }

    /// The task to ask for what ends with a thread (memory, executable, command line, descriptors):
    /// the process itself, or where its first thread has ended, its oldest one that lives. None, and
    /// errno, on a failure of this program's own. Leaves the buffer as it is.
    std::optional<Task> livingTask(quint32 pid) const;

    /// The first bytes of /proc/PID/NAME, at most the buffer's size; none when it cannot be read.
    std::optional<QByteArrayView> readFile(Task task, const char* name);

    /// The same of the file that `path` leads to from an open directory.
    std::optional<QByteArrayView> readFileAt(int directory, const char* path);

    /// The whole of /proc/PID/NAME, at most `limit` bytes; none when it cannot be read.
    std::optional<QByteArray> readWholeFile(Task task, const char* name, qsizetype limit);

    /// The directory /proc/PID/NAME; none when it cannot be opened. What is read by its handle is
    /// of that process, whoever has its PID by then.
    DirectoryHandle openDirectoryOf(Task task, const char* name);

    /// Shows each line of a text of any length, such as PID/maps, to `line`; of one beyond the buffer's
    /// size, the beginning. False, and errno, when it could not be read to its end. `line` asks
    /// nothing of this object.
    bool readLines(const char* path, const std::function<void(QByteArrayView)>& line);

    /// Resident pages from /proc/PID/statm: exact, as ps shows them. The figure in stat is an
    /// estimate that strays by megabytes on machines of many processors.
    std::optional<qint64> residentPages(Task task);

    /// Name and path of the process that `stat` was read from, by the link PID/exe. None on a failure
    /// of this program's own.
    std::optional<ProcessIdentity> identity(Task task, const ProcStat& stat);

    /// The same by the link that `path` leads to from an open directory.
    std::optional<ProcessIdentity> identityAt(int directory, const char* path,
                                              const ProcStat& stat);

    /// The processes' directory itself, to be asked for what this class does not read.
    int descriptor() const { return ::dirfd(m_directory.get()); }

private:
    /// Target of a link PID/exe, without the mark of a deleted file; none when it cannot be read.
    std::optional<QByteArrayView> executableAt(int directory, const char* path);

    const char* pathOf(Task task, const char* name);

    DirectoryHandle m_directory;
    std::array<char, 64> m_path{};
    std::array<char, 8192> m_buffer{};
};

} // namespace korvane::linux_platform
