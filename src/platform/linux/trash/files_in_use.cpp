// The look through /proc, and the parsers of its tables of files.
#include "platform/linux/trash/files_in_use.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"
#include "platform/linux/trash/path_follower.h"

#include <QSet>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>

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

} // namespace

/// One look under way: collects what is found.
class FilesInUse::UseCollector
{
public:
    explicit UseCollector(const char* proc) : m_proc(proc), m_tables(proc) {}

    OrErrno<FilesInUse> collect(const char* sys)
    {
        if (!m_proc.isOpen())
            return m_error;
        const bool sawAll = m_proc.forEachPid([this](quint32 pid) {
            addProcess(pid);
            return m_error == 0;
        });
        if (!sawAll && m_error == 0)
            m_error = errno;
        readTable("net/unix", &UseCollector::addSocket);
        readTable("locks", &UseCollector::addLock);
        readTable("swaps", &UseCollector::addSwap);
        addLoopDevices(sys);
        for (const auto& [text, table] : m_tables.tables()) {
            for (const Mount& mount : table.mounts())
                addMount(mount);
        }
        OrErrno<MountTables> mounts = m_tables.result();
        if (m_error != 0 || !mounts)
            return m_error != 0 ? m_error : mounts.error();

        m_found.m_mounts = std::move(*mounts);
        m_found.m_paths = QList<QByteArray>(m_paths.cbegin(), m_paths.cend());
        std::sort(m_found.m_paths.begin(), m_found.m_paths.end());
        std::sort(m_found.m_files.begin(), m_found.m_files.end());
        return std::move(m_found);
    }

private:
    /// What has vanished or is none of this user's business leaves the look complete.
    void note(int error) { m_error = m_error == 0 && isOwnFailure(error) ? error : m_error; }

    void readTable(const char* path, void (UseCollector::*add)(QByteArrayView))
    {
        if (!m_proc.readLines(path, [this, add](QByteArrayView line) { (this->*add)(line); }))
            note(errno);
    }

    /// Shows the names in a directory, with a handle of it.
    template <typename Show> void readNames(int at, const char* path, Show show)
    {
        const DirectoryHandle directory = openDirectory(at, path);
        if (directory == nullptr)
            return note(errno);
        for (errno = 0; const dirent* entry = ::readdir(directory.get()); errno = 0) {
            if (entry->d_name[0] != '.')
                show(::dirfd(directory.get()), entry->d_name);
        }
        note(errno);
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
            m_canBeRemote ? ::readlinkat(directory, link, path.data(), path.size()) : 0;
        if (size > 0 && isRemote(QByteArray(path.data(), size))) {
            addPath(QByteArray(path.data(), size));
            return true;
        }
        struct statx target = {};
        constexpr int flags = AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT;
        if (::statx(directory, link, flags, STATX_INO, &target) != 0) {
            note(errno);
            return errno != EACCES;
        }
        m_found.m_files.emplace_back(makedev(target.stx_dev_major, target.stx_dev_minor),
                                     target.stx_ino);
        return true;
    }

    /// By the table of the process that the link is of; where that does not reach, as of what it has
    /// opened before a chroot, by this one's own.
    bool isRemote(const QByteArray& path) const
    {
        if (!isAtOrBelow(path, m_root))
            return m_tables.own().isRemote(path);
        const QByteArray below = path.sliced(m_root == "/" ? 0 : m_root.size());
        return m_mounts->isRemote(below.isEmpty() ? "/" : below);
    }

    void addProcess(quint32 pid)
    {
        const MountTable* mounts = m_tables.read(pid);
        m_mounts = mounts != nullptr ? mounts : &m_tables.own();
        m_canBeRemote = m_mounts->hasRemote() || m_tables.own().hasRemote();
        if (m_canBeRemote)
            m_root = linkIn(QByteArray::number(pid) + "/root").value_or("/");
        addFromEnvironment(pid, mounts);
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
            readTable((path + "maps").constData(), &UseCollector::addMapped);
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

    void addFromEnvironment(quint32 pid, const MountTable* mounts)
    {
        const auto environment = m_proc.readWholeFile(pid, "environ", environmentLimit);
        if (!environment)
            return note(errno);
        std::array<bool, pathVariables.size()> isSet{};
        QByteArrayView rest(*environment);
        while (!rest.isEmpty()) {
            const QByteArrayView variable = takeUntil(rest, '\0');
            for (std::size_t i = 0; i < pathVariables.size(); ++i) {
                if (!variable.startsWith(pathVariables.at(i)))
                    continue;
                const QByteArray value = variable.sliced(pathVariables.at(i).size()).toByteArray();
                addPath(value.sliced(std::max(value.indexOf('/'), qsizetype{0})));
                // Of several values, programs take the first.
                const bool isFirst = !std::exchange(isSet.at(i), true);
                if (isFirst && mounts != nullptr && !value.isEmpty() && isOwn(pid))
                    addNamed(pid, *mounts, value);
            }
        }
    }

    /// Whether the process is this user's in every way: nobody else shall decide how far this program
    /// goes. The owner of its files in /proc does not tell.
    bool isOwn(quint32 pid)
    {
        const std::optional<QByteArrayView> status = m_proc.readFile(pid, "status");
        if (!status) {
            note(errno);
            return false;
        }
        QByteArrayView line = status->sliced(std::max(status->indexOf("\nUid:"), qsizetype{0}));
        takeUntil(line, '\t');
        line = takeUntil(line, '\n');
        for (int i = 0; i < 4; ++i) {
            uid_t user = 0;
            if (!parseNumber(takeUntil(line, '\t'), user) || user != ::geteuid())
                return false;
        }
        return true;
    }

    /// Adds what the value of a variable leads to. Before the path may stand the kind of cache, as in
    /// "FILE:/tmp/x" or "DIR::x".
    void addNamed(quint32 pid, const MountTable& mounts, const QByteArray& value)
    {
        addLeadTo(pid, mounts, value);
        qsizetype begin = value.indexOf(':') + 1;
        while (begin > 0 && begin < value.size() && value[begin] == ':')
            ++begin;
        if (begin > 0)
            addLeadTo(pid, mounts, value.sliced(begin));
    }

    /// Adds what the path leads to for the process, as far as that can be found without a wait.
    void addLeadTo(quint32 pid, const MountTable& mounts, const QByteArray& path)
    {
        const QByteArray process = QByteArray::number(pid);
        const std::optional<QByteArray> root = linkIn(process + "/root");
        if (!root || !m_tables.own().isLocal(*root) || !mounts.isLocal("/"))
            return;
        QByteArray absolute = path;
        if (!path.startsWith('/')) {
            const std::optional<QByteArray> directory = linkIn(process + "/cwd");
            if (!directory || !isAtOrBelow(*directory, *root))
                return;
            absolute = directory->sliced(*root == "/" ? 0 : root->size()) + '/' + path;
        }
        // Most processes of a session have the same.
        const auto table = reinterpret_cast<quintptr>(&mounts);
        const QByteArray question = QByteArray::number(quint64{table}) + *root + '\0' + absolute;
        if (m_followed.contains(question))
            return;
        m_followed.insert(question);
        PathFollower follower(m_proc.descriptor(), process + "/root", mounts);
        for (const Identity& found : follower.follow(absolute))
            m_found.m_files.push_back(found);
        note(follower.error());
    }

    std::optional<QByteArray> linkIn(const QByteArray& path) const
    {
        std::array<char, PATH_MAX> target{};
        const ssize_t size =
            ::readlinkat(m_proc.descriptor(), path.constData(), target.data(), target.size());
        return size > 0 ? std::optional(QByteArray(target.data(), size)) : std::nullopt;
    }

    /// The options of layered file systems name directories, as in "upperdir=/a,lowerdir=/b:/c".
    void addMount(const Mount& mount)
    {
        addPath(mount.source);
        QByteArrayView options(mount.options);
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
                note(errno);
            else
                addPath(file->endsWith('\n') ? file->chopped(1) : *file);
        });
    }

    ProcFs m_proc;
    /// The first failure for which something may be missing; before m_tables, which sets errno too.
    int m_error = m_proc.isOpen() ? 0 : errno; ///< The first failure of this program's own.
    MountTableReader m_tables;
    FilesInUse m_found;
    QSet<QByteArray> m_paths;
    QSet<QByteArray> m_followed;
    const MountTable* m_mounts = nullptr; ///< Of the process at hand, as are its
    QByteArray m_root;                    ///< root, where that matters, and
    bool m_canBeRemote = false;           ///< whether a link of it may lead to a remote mount.
    QByteArray m_lastMapped;
};

OrErrno<FilesInUse> FilesInUse::look(const char* proc, const char* sys)
{
    return UseCollector(proc).collect(sys);
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
