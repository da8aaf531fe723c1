// The look through /proc, and the parsers of its tables of files.
#include "platform/linux/files_in_use.h"

#include "platform/linux/named_file.h"
#include "platform/linux/proc_fs.h"
#include "platform/linux/text.h"

#include <QSet>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

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
        if (!m_found.m_mounts.addOwn(m_proc))
            return std::nullopt;
        addLayers(m_found.m_mounts.own());
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

    /// Whether to look at what is at this path is to ask a server, whatever one asks for.
    bool isRemote(const QByteArray& path) const
    {
        const Mount* mount = m_found.m_mounts.own().at(path);
        return mount != nullptr && isAskedFor(mount->type);
    }

    static bool isAskedFor(const QByteArray& type)
    {
        return type.startsWith("nfs") || type == "9p";
    }

    void addProcess(quint32 pid)
    {
        const std::size_t known = m_found.m_mounts.size();
        if (!m_found.m_mounts.addOf(m_proc, pid))
            m_isIncomplete = true;
        if (m_found.m_mounts.size() > known)
            addLayers(m_found.m_mounts.of(pid));
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
                if (variable.startsWith(name))
                    addNamed(pid, variable.sliced(name.size()).toByteArray());
            }
        }
    }

    /// Adds the file that a process names, by what it is: the same one has many paths.
    void addNamed(quint32 pid, QByteArray path)
    {
        for (const char* kind : {"FILE:", "DIR::", "DIR:"}) { // of Kerberos tickets
            if (path.startsWith(kind))
                path.remove(0, static_cast<qsizetype>(std::strlen(kind)));
        }
        if (path.isEmpty() || path.size() >= PATH_MAX)
            return;
        addPath(path);
        const NamedFile named = followAs(m_proc, pid, m_found.m_mounts.of(pid), path);
        m_isIncomplete = m_isIncomplete || isOwnFailure(named.error);
        m_found.m_files.insert(m_found.m_files.end(), named.files.begin(), named.files.end());
        addPath(named.path);
    }

    /// Adds the directories of layered file systems, which their options name, as in
    /// "upperdir=/a,lowerdir=/b:/c".
    void addLayers(const MountTable& table)
    {
        for (const Mount& mount : table.mounts()) {
            m_isRemoteMounted = m_isRemoteMounted || isAskedFor(mount.type);
            addPath(mount.source);
            QByteArrayView options = mount.options;
            while (!options.isEmpty()) {
                QByteArrayView paths = takeUntil(options, ',');
                takeUntil(paths, '=');
                while (!paths.isEmpty())
                    addPath(unescaped(takeUntil(paths, ':')));
            }
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

} // namespace korvane::linux_platform
