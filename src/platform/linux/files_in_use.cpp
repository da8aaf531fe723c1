// The look through /proc, and the parsers of its tables of files.
#include "platform/linux/files_in_use.h"

#include "platform/linux/proc_fs.h"
#include "platform/linux/text.h"

#include <QSet>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <linux/kcmp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

/// What the programs of a session use by its path again and again. Without the first, no X client
/// started later would be let in.
constexpr std::array<QByteArrayView, 5> pathVariables{
    "XAUTHORITY=", "ICEAUTHORITY=", "KRB5CCNAME=", "XDG_RUNTIME_DIR=", "TMPDIR="};

/// More than any session's environment.
constexpr qsizetype environmentLimit = qsizetype{256} * 1024;

void skipWords(QByteArrayView& line, int count)
{
    while (count-- > 0)
        takeWord(line);
}

/// A name in which the kernel wrote blanks and the like as a backslash and three octal digits.
QByteArray unescaped(QByteArrayView text)
{
    QByteArray plain;
    for (qsizetype at = 0; at < text.size(); ++at) {
        unsigned char byte = 0;
        const bool isEscape = text[at] == '\\' && at + 3 < text.size() &&
                              parseNumber(text.sliced(at + 1, 3), byte, 8);
        plain.append(isEscape ? static_cast<char>(byte) : text[at]);
        at += isEscape ? 3 : 0;
    }
    return plain;
}

bool isAtOrBelow(const QByteArray& path, const QByteArray& directory)
{
    return path.startsWith(directory) && (path.size() == directory.size() ||
                                          directory.endsWith('/') || path[directory.size()] == '/');
}

/// Whether one of the sorted `paths` is `directory` or lies below it.
bool anyAtOrBelow(const QList<QByteArray>& paths, const QByteArray& directory)
{
    const QByteArray inside = directory.endsWith('/') ? directory : directory + '/';
    const auto first = std::lower_bound(paths.cbegin(), paths.cend(), inside);
    return std::binary_search(paths.cbegin(), paths.cend(), directory) ||
           (first != paths.cend() && first->startsWith(inside));
}

} // namespace

/// One look under way.
class FilesInUse::Look
{
public:
    explicit Look(const char* proc) : m_proc(proc) {}

    std::optional<FilesInUse> finished(const char* sys)
    {
        if (!m_proc.isOpen())
            return std::nullopt;
        readTable("self/mountinfo", &Look::addMount);
        const bool sawAll = m_proc.forEachPid([this](quint32 pid) {
            addProcess(pid);
            return !m_isIncomplete;
        });
        readTable("net/unix", &Look::addSocket);
        readTable("locks", &Look::addLock);
        readTable("swaps", &Look::addSwap);
        addLoopDevices(sys);
        if (!sawAll || m_isIncomplete)
            return std::nullopt;

        m_found.m_paths = QList<QByteArray>(m_paths.cbegin(), m_paths.cend());
        std::sort(m_found.m_paths.begin(), m_found.m_paths.end());
        std::sort(m_found.m_mounts.begin(), m_found.m_mounts.end());
        std::sort(m_found.m_files.begin(), m_found.m_files.end());
        return std::move(m_found);
    }

private:
    /// What has vanished or is none of this user's business leaves the look complete.
    void noteFailure() { m_isIncomplete = m_isIncomplete || isOwnFailure(errno); }

    void readTable(const char* path, void (Look::*add)(QByteArrayView))
    {
        if (!m_proc.readLines(path, [this, add](QByteArrayView line) { (this->*add)(line); }))
            noteFailure();
    }

    /// Shows the names in a directory, with a handle of it.
    template <typename Show> void readNames(int at, const char* path, Show show)
    {
        const DirectoryHandle directory = openDirectory(at, path);
        if (directory == nullptr)
            return noteFailure();
        for (errno = 0; const dirent* entry = ::readdir(directory.get()); errno = 0) {
            if (entry->d_name[0] != '.')
                show(::dirfd(directory.get()), entry->d_name);
        }
        noteFailure();
    }

    void addPath(const QByteArray& path)
    {
        if (path.startsWith('/'))
            m_paths.insert(path);
    }

    /// Adds a file by the texts "MAJOR:MINOR", hexadecimal, and its inode.
    void addFile(QByteArrayView device, QByteArrayView inode)
    {
        unsigned int majorNumber = 0;
        unsigned int minorNumber = 0;
        ino_t number = 0;
        if (parseNumber(takeUntil(device, ':'), majorNumber, 16) &&
            parseNumber(device, minorNumber, 16) && parseNumber(inode, number) && number != 0)
            m_found.m_files.emplace_back(makedev(majorNumber, minorNumber), number);
    }

    /// Adds what a link of /proc leads to; false where this program may not look into the process.
    /// On the way there, the kernel asks the server of some file systems, which may never answer:
    /// files there are known by their path.
    bool addTarget(int directory, const char* link)
    {
        std::array<char, PATH_MAX> path{};
        const ssize_t size =
            m_isRemoteMounted ? ::readlinkat(directory, link, path.data(), path.size()) : 0;
        if (size > 0 && isRemote(QByteArray(path.data(), size))) {
            addPath(QByteArray(path.data(), size));
            return true;
        }
        struct statx target = {};
        constexpr int flags = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT;
        if (::statx(directory, link, flags, STATX_INO, &target) != 0) {
            noteFailure();
            return errno != EACCES;
        }
        m_found.m_files.emplace_back(makedev(target.stx_dev_major, target.stx_dev_minor),
                                     target.stx_ino);
        return true;
    }

    bool isRemote(const QByteArray& path) const
    {
        std::pair<qsizetype, bool> nearest{-1, false};
        for (qsizetype i = 0; i < m_found.m_mounts.size(); ++i) {
            if (isAtOrBelow(path, m_found.m_mounts[i]))
                nearest = std::max(nearest, {m_found.m_mounts[i].size(), m_isRemote[i]});
        }
        return nearest.second;
    }

    void addProcess(quint32 pid)
    {
        addFromEnvironment(pid);
        const QByteArray tasks = QByteArray::number(pid) + "/task/";
        readNames(m_proc.descriptor(), tasks.constData(), [&](int, const char* name) {
            quint32 tid = 0;
            if (parseNumber(QByteArrayView(name), tid))
                addThread(pid, tid, tasks + name + '/');
        });
    }

    /// A thread may have a working directory and files of its own; of a process whose first thread has
    /// ended, only the others have any.
    void addThread(quint32 pid, quint32 tid, const QByteArray& path)
    {
        const auto has = [pid, tid](int what) {
            return tid == pid || ::syscall(SYS_kcmp, pid, tid, what, 0, 0) != 0;
        };
        const int proc = m_proc.descriptor();
        if (has(KCMP_FS)) {
            if (!addTarget(proc, (path + "cwd").constData()))
                return; // nor would anything else be told
            addTarget(proc, (path + "root").constData());
        }
        if (has(KCMP_FILES)) {
            readNames(proc, (path + "fd").constData(),
                      [this](int directory, const char* name) { addTarget(directory, name); });
        }
        if (has(KCMP_VM)) {
            addTarget(proc, (path + "exe").constData());
            m_lastMapped.clear();
            readTable((path + "maps").constData(), &Look::addMapped);
        }
    }

    /// "ADDRESSES PERMISSIONS OFFSET DEVICE INODE PATH". By path too: the device of btrfs and overlay
    /// files is another one than stat's.
    void addMapped(QByteArrayView line)
    {
        skipWords(line, 3);
        if (line.startsWith(" 00:00 ") || line == m_lastMapped)
            return;
        m_lastMapped = line.toByteArray();
        const QByteArrayView device = takeWord(line);
        addFile(device, takeWord(line));
        const qsizetype path = line.indexOf('/');
        if (path >= 0)
            addPath(line.sliced(path).toByteArray().replace("\\012", "\n"));
    }

    void addFromEnvironment(quint32 pid)
    {
        const auto environment = m_proc.readWholeFile(pid, "environ", environmentLimit);
        if (!environment)
            return noteFailure();
        QByteArrayView rest(*environment);
        while (!rest.isEmpty()) {
            const QByteArrayView variable = takeUntil(rest, '\0');
            for (const QByteArrayView name : pathVariables) {
                const qsizetype path = variable.startsWith(name) ? variable.indexOf('/') : -1;
                if (path >= 0) // what may stand before it is the kind of cache, as in "FILE:/tmp/x"
                    addPath(variable.sliced(path).toByteArray());
            }
        }
    }

    /// "ID PARENT DEVICE ROOT PLACE OPTIONS... - TYPE SOURCE OPTIONS": the last ones of layered file
    /// systems name directories, as in "upperdir=/a,lowerdir=/b:/c".
    void addMount(QByteArrayView line)
    {
        skipWords(line, 4);
        const QByteArray place = unescaped(takeWord(line));
        if (!place.startsWith('/'))
            return;
        while (!line.isEmpty() && takeWord(line) != QByteArrayView("-")) {
        }
        const QByteArrayView type = takeWord(line);
        m_found.m_mounts.append(place);
        m_isRemote.append(type.startsWith(QByteArrayView("nfs")) || type == QByteArrayView("9p"));
        m_isRemoteMounted = m_isRemoteMounted || m_isRemote.last();
        addPath(unescaped(takeWord(line)));
        QByteArrayView options = takeWord(line);
        while (!options.isEmpty()) {
            QByteArrayView paths = takeUntil(options, ',');
            takeUntil(paths, '=');
            while (!paths.isEmpty())
                addPath(unescaped(takeUntil(paths, ':')));
        }
    }

    /// "ADDRESS: REFERENCES PROTOCOL FLAGS TYPE STATE INODE PATH".
    void addSocket(QByteArrayView line)
    {
        skipWords(line, 7);
        takeUntil(line, ' ');
        addPath(line.toByteArray());
    }

    /// "NUMBER: KIND... PID MAJOR:MINOR:INODE START END".
    void addLock(QByteArrayView line)
    {
        while (!line.isEmpty()) {
            const QByteArrayView word = takeWord(line);
            const qsizetype device = word.lastIndexOf(':');
            if (device > 0)
                addFile(word.first(device), word.sliced(device + 1));
        }
    }

    void addSwap(QByteArrayView line) { addPath(unescaped(takeWord(line))); }

    /// The files behind loop devices, which no process has open.
    void addLoopDevices(const char* sys)
    {
        const QByteArray blocks = QByteArray(sys) + "/block/";
        readNames(AT_FDCWD, blocks.constData(), [&](int, const char* name) {
            const QByteArray path = blocks + name + "/loop/backing_file";
            const auto file = readSystemFile(path.constData(), PATH_MAX);
            if (!file)
                noteFailure();
            else
                addPath(file->endsWith('\n') ? file->chopped(1) : *file);
        });
    }

    ProcFs m_proc;
    FilesInUse m_found;
    QSet<QByteArray> m_paths;
    QList<bool> m_isRemote; ///< One for each of m_found.m_mounts.
    bool m_isRemoteMounted = false;
    bool m_isIncomplete = false;
    QByteArray m_lastMapped;
};

std::optional<FilesInUse> FilesInUse::look(const char* proc, const char* sys)
{
    return Look(proc).finished(sys);
}

bool FilesInUse::has(dev_t device, ino_t inode) const
{
    return std::binary_search(m_files.cbegin(), m_files.cend(), Identity(device, inode));
}

bool FilesInUse::hasBelow(const QByteArray& canonicalPath) const
{
    return anyAtOrBelow(m_paths, canonicalPath);
}

bool FilesInUse::hasMountBelow(const QByteArray& canonicalPath) const
{
    return anyAtOrBelow(m_mounts, canonicalPath);
}

} // namespace korvane::linux_platform
