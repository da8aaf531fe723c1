// Tests what may be moved away on files that are really in use, mounted or somebody else's, and the
// look through /proc on texts nobody would write.
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/movable_entry.h"
#include "support/damage.h"
#include "support/refusals.h"
#include "support/system.h"

#include <array>
#include <future>

#include <sys/mman.h>
#include <sys/sysmacros.h>

using namespace korvane;
using namespace korvane::linux_platform;
using namespace Qt::StringLiterals;
using enum KeptBecause;
using test::Child;

namespace {

/// What a child process does before it waits, in the directory of the entry "top".
using Deed = std::function<void()>;

Deed shell(QByteArray script)
{
    script += "; exec >&-; kill -STOP $$";
    return [script] { ::execl("/bin/sh", "sh", "-ec", script.constData(), nullptr); };
}

/// A program whose environment has the variable. The directory has a link to "top/a", and "top" one
/// to another place.
Deed withVariable(const QByteArray& variable)
{
    return shell("ln -s top/a link; ln -s ../other top/link; exec env " + variable +
                 " sh -c 'exec >&-; kill -STOP $$'");
}

/// A program whose environment has one variable twice.
void withTwoNames()
{
    const std::array<const char*, 3> environment{"TMPDIR=other", "TMPDIR=other/../top/a", nullptr};
    ::execle("/bin/sh", "sh", "-c", "exec >&-; kill -STOP $$", nullptr, environment.data());
}

void mapAndClose()
{
    const UniqueFd file(::open("top/a/b/file", O_RDONLY | O_CLOEXEC));
    if (::mmap(nullptr, 1, PROT_READ, MAP_SHARED, file.get(), 0) == MAP_FAILED)
        ::_exit(1);
}

/// In a thread that shares nothing but memory with the others of its process.
Deed inThread(int (*use)())
{
    return [use] {
        std::promise<void> done;
        std::future<void> isDone = done.get_future();
        std::thread([use, own = std::move(done)]() mutable {
            if (::unshare(CLONE_FS | CLONE_FILES) != 0 || use() < 0)
                ::_exit(1);
            ::close(STDOUT_FILENO);
            own.set_value();
            test::waitForEnd();
        }).detach();
        isDone.wait();
    };
}

/// The socket stays open; its file is then moved.
Deed bindAndMove(const char* place, const char* then)
{
    return [=] {
        const sockaddr_un address =
            test::localAddress(QFile::encodeName(QDir::currentPath()) + '/' + place);
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            std::rename(place, then) != 0)
            ::_exit(1);
    };
}

/// Why the entry "top" stays, for root or nobody where those are named, and the deed.
const test::Cases<KeptBecause, Deed> deeds{
    {"plain", Nothing, [] {}},
    {"open", InUse, shell("exec 3<top/a/b/file")},
    {"mapped and closed", InUse, mapAndClose},
    {"executable", InUse, shell("cp /bin/sh top/a/x; exec top/a/x -c 'exec >&-; kill -STOP $$'")},
    {"working directory", InUse, shell("cd top/a")},
    {"the entry is one", InUse, shell("cd top")},
    {"a thread's working directory", InUse, inThread([] { return ::chdir("top/a"); })},
    {"open in a thread", InUse, inThread([] { return ::open("top/a/b/file", O_RDONLY); })},
    {"bound socket", InUse, bindAndMove("top/a/socket", "top/a/socket")},
    {"bound by another name", SpecialFile, bindAndMove("socket", "top/a/socket")},
    {"FIFO", SpecialFile, shell("mkfifo top/a/fifo")},
    {"file of two names", Nothing, shell("ln top/a/b/file link")},
    {"open by the other one", InUse, shell("ln top/a/b/file link; exec 3<link")},
    {"links to what must stay", Nothing,
     shell("ln -s ../../other/file /dev/null top/a; ln -s .. top/a/up; exec 3<other/file")},
    {"named through a link", InUse, withVariable("XAUTHORITY=$PWD/link/b/file")},
    {"the link that is named", InUse, withVariable("XAUTHORITY=$PWD//top/link/file")},
    {"named with two slashes", InUse, withVariable("ICEAUTHORITY=$PWD//top/a/b/file")},
    {"named from another place", InUse, withVariable("TMPDIR=$PWD/other/../top/a")},
    {"on the way to a name", InUse, withVariable("TMPDIR=$PWD//top/../other")},
    {"named relatively", InUse, withVariable("KRB5CCNAME=DIR::top/a/b/file")},
    {"named for the future", InUse, withVariable("XDG_RUNTIME_DIR=link/to/be/made")},
    {"named beside it", Nothing, withVariable("TMPDIR=./other/file/none")},
    {"named by too long a way", Nothing,
     withVariable("TMPDIR=$PWD$(printf '/other/..%.0s' $(seq 200))//top/a")},
    {"named second", Nothing, withTwoNames},
    {"root: named by another user's", Nothing,
     withVariable("XAUTHORITY=$PWD/link/b/file setpriv --reuid=65534 --clear-groups")},
    {"root: another owner's", NotOwn, shell("chown 65534 top/a/b/file")},
    {"root: device", SpecialFile, shell("mknod top/a/b/null c 1 3")},
    {"nobody: nothing", Nothing, shell("chown -R 65534 .")},
    {"nobody: unseen directory", Unreadable, shell("chown -R 65534 .; chmod 0 top/a")},
    {"nobody: unseen file", NotOwn, shell("chown -R 65534 .; chmod 0 top/a/b/file")},
    {"nobody: unseen opener", InUse, shell("chown -R 65534 .; exec 3<top/a/b/file")},
};

/// How it is mounted at $1, and that place.
const test::Cases<QByteArray, QString> mounts{
    {"directory", "mount --bind $0/other $1", u"top/a/b"_s},
    {"file", "mount --bind $0/other/file $1", u"top/a/b/file"_s},
    {"file system", "mount -t tmpfs none \"$1\"", u"top/a b"_s},
    {"the entry", "mount --bind $0/other $1", u"top"_s},
};

/// What is mounted, and why "top" and "other" stay.
const test::Cases<QByteArray, KeptBecause, KeptBecause> mountsElsewhere{
    {"the entry and a mount point", "mount --bind top other", InUse, MountPoint},
    {"source and place within", "mount --bind 'top/a b' other/in", InUse, MountPoint},
    {"files", "mount --bind top/a/b/file other/file", InUse, MountPoint},
    {"tmpfs", "mount -t tmpfs none top/a/b", MountPoint, Nothing},
    {"a source above", "mount --bind . other", Nothing, MountPoint},
    {"by another path", "mount --bind . other; mount -t tmpfs none other/top/a", MountPoint,
     MountPoint},
    {"of the same path elsewhere",
     "mount -t tmpfs none .; cd $PWD; mkdir top; mount -t tmpfs none top", Nothing, Nothing},
    {"open", "mount --bind . other", InUse, MountPoint},
};

const QByteArray longLine = QByteArray(20'000, 'z') + " /cut 1 2 3 4 5 6 7 /cut\n";
/// Files of the shape of those of /proc and /sys, and the paths that are in use by them.
const test::Cases<QByteArray, QByteArrayList> tables{
    {"proc/7/task/7/maps",
     "7f0-7f1 rw-p 00000000 00:00 0    [heap]\n7f0-7f1 \n\n" + longLine +
         "7f1-7f2 r--p 00000000 08:1a 77                 /tmp/ a\\012\\101 b \n"
         "7f2-7f3 r--p 00000000 00:1b 18446744073709551616 /big\n",
     {"/tmp/ a\n\\101 b ", "/big"}},
    {"proc/net/unix",
     longLine + "Num       RefCount Protocol Flags    Type St Inode Path\n"
                "000: 00000002 00000000 00010000 0001 01  4711 @/tmp/abstract\n"
                "000: 00000002 00000000 00010000 0001 01  4711 /tmp/s  x\n"
                "000: 00000002 00000000 00010000 0001 01  4711",
     {"/tmp/s  x"}},
    {"proc/self/mountinfo",
     longLine + "1 2 3\n\n1 0 0:1 / / rw - overlay o rw,lowerdir=/l1:/l\\0402,upperdir=/up\n",
     {"/l1", "/l 2", "/up"}},
    {"proc/swaps", "Filename Type\n/swap\\040file  file 1 0 -2\n", {"/swap file"}},
    {"sys/block/loop0/loop/backing_file", "/image \n", {"/image "}},
    {"proc/7/environ",
     QByteArray("A=/a|KRB5CCNAME=FILE:/tk|TMPDIR=/x/t|XAUTHORITY=/x/auth|TMPDIR")
         .replace('|', '\0'),
     {"/tk", "/x/auth", "/x/t"}},
    {"proc/locks",
     longLine + "1: POSIX  ADVISORY  WRITE 811 08:1a:77 0 EOF\n1: -> x:y:z ::: 08:1a:\n",
     {}},
};

} // namespace

class TestMovableEntry : public QObject
{
    Q_OBJECT

    QByteArray path(const QByteArray& name = {}) const
    {
        return QFile::encodeName(m_root->path()) + '/' + name;
    }

    void write(const QByteArray& name, const QByteArray& content) const
    {
        test::writeFile(QFile::decodeName(path(name)), content);
    }

    MoveVerdict check(const QByteArray& name, const std::optional<FilesInUse>& inUse,
                      const QList<QByteArray>& protectedPaths = {}) const
    {
        const UniqueFd parent(::open(path().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return MoveJudge(inUse.value(), protectedPaths)
            .judge(parent.get(), name.constData(), path(name));
    }
    KeptBecause kept(const QByteArray& name, const QList<QByteArray>& protectedPaths = {}) const
    {
        return check(name, FilesInUse::look(), protectedPaths).keptBecause;
    }

    /// A look through a directory of the shape of /proc, and another one of that of /sys.
    OrErrno<FilesInUse> lookAtMadeUp() const
    {
        return FilesInUse::look(path("proc").constData(), path("sys").constData());
    }

private Q_SLOTS:
    void initTestCase() { m_hasOwnMounts = test::makeMountsOwn(); }

    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        m_root = std::make_unique<QDir>(QDir(m_directory->path()).canonicalPath());
        write("top/a/b/file", QByteArray(10'000, 'x'));
        for (const char* file : {"other/file", "proc/7/x"})
            write(file, "");
        for (const auto& directory : {u"top/a b"_s, u"other/in"_s, u"proc/7/task/7/fd"_s})
            QVERIFY(m_root->mkpath(directory));
    }

    void entryIsKept_data() { test::addRows(deeds); }
    void entryIsKept()
    {
        const auto& [name, reason, deed] = test::currentRow(deeds);
        if (::geteuid() != 0 && QByteArray(name).contains(": "))
            QSKIP("root alone can become somebody else, and make such things");
        Child child([this, act = deed] {
            if (::chdir(path().constData()) == 0)
                act();
        });
        const uid_t user = QByteArray(name).startsWith("nobody") ? test::nobody : ::geteuid();
        QCOMPARE(::seteuid(user), 0);
        const KeptBecause found = kept("top");
        QCOMPARE(::seteuid(::getuid()), 0);
        QCOMPARE(found, reason);
        QVERIFY(child.isRunning()); // it has done what it was to do
        child.reap();
        const bool hasSocket = m_root->exists(u"top/a/socket"_s);
        if (reason == InUse && user == ::geteuid())
            QCOMPARE(kept("top"), hasSocket ? SpecialFile : Nothing);
    }

    void sizeIsThatOfTheFiles()
    {
        const MoveVerdict found = check("top", FilesInUse::look());
        qint64 blocks = 0;
        for (const char* each : {"top", "top/a", "top/a b", "top/a/b", "top/a/b/file"}) {
            struct stat info = {};
            QCOMPARE(::stat(path(each).constData(), &info), 0);
            blocks += info.st_blocks;
        }
        QCOMPARE(found.bytes, blocks * 512);
        QCOMPARE(kept("none"), Vanished);
        QCOMPARE(check("top", lookAtMadeUp()).keptBecause, Unconfirmed); // on a mount of no table
        QCOMPARE(keptBecauseText(InUse), u"正在使用"_s);
        QCOMPARE(keptBecauseText(Unreadable), u"无法读取"_s);
    }

    void directoriesWithProtectedOnesStay()
    {
        QCOMPARE(::symlink("top/a/b", path("link").constData()), 0);
        for (const char* place : {"top", "top/a/b", "link"})
            QCOMPARE(kept("top", {path("none"), path(place)}), SystemPlace);
        QCOMPARE(kept("link", {path("top/a/b")}), Nothing);
    }

    void namesAreKnown()
    {
        for (const char* name : {".Trash", ".Trash-1000", ".X0-lock", ".X11-unix", ".ICE-unix",
                                 "systemd-private-0ab-x.service-Y", "snap.0_x", "krb5cc_0"})
            QCOMPARE(kept(name), SystemPlace);
        for (const char* name : {".Trash-can", "Trash", ".Xy-lock", "snap.jpg", "b.lock"}) {
            write(name, "");
            QCOMPARE(kept(name), Nothing);
        }
        QCOMPARE(::mknod(path("b").constData(), S_IFSOCK | 0600, 0), 0);
        QCOMPARE(kept("b.lock"), InUse);
    }

    void mountsStay_data() { test::addRows(mounts); }
    void mountsStay()
    {
        const auto& [name, script, place] = test::currentRow(mounts);
        if (!m_hasOwnMounts)
            QSKIP("this machine refuses a mount namespace");
        const QStringList arguments{m_root->path(), m_root->filePath(place)};
        write("proc/self/mountinfo", test::readFile(u"/proc/self/mountinfo"_s));
        QCOMPARE(test::shell(script + " 2>&1", arguments), QString());
        const KeptBecause reason = kept("top");
        // And where the table of mounts does not tell yet.
        const KeptBecause reasonWithoutTable = check("top", lookAtMadeUp()).keptBecause;
        QCOMPARE(test::shell("umount -l \"$1\" 2>&1", arguments), QString());
        QCOMPARE(reason, MountPoint);
        QCOMPARE(reasonWithoutTable, MountPoint);
        QCOMPARE(kept("top"), Nothing);
    }

    void useInAnotherMountNamespaceIsSeen_data() { test::addRows(mountsElsewhere); }
    void useInAnotherMountNamespaceIsSeen()
    {
        const auto& [name, script, top, other] = test::currentRow(mountsElsewhere);
        if (!m_hasOwnMounts)
            QSKIP("this machine refuses a mount namespace");
        const bool opens = QByteArray(name) == "open";
        const auto mountAll = [this, opens, line = "set -e; " + script] {
            if (::unshare(CLONE_FS | CLONE_NEWNS) != 0 || ::chdir(path().constData()) != 0 ||
                std::system(line.constData()) != 0 ||
                (opens && ::open("other/top/a/b/file", O_RDONLY | O_CLOEXEC) < 0))
                ::_exit(1);
            ::close(STDOUT_FILENO);
            test::waitForEnd();
        };
        for (const bool inThread : {false, true}) {
            const Child child([&] {
                if (inThread)
                    std::thread(mountAll).join();
                mountAll();
            });
            QVERIFY(child.isRunning());
            QCOMPARE(kept("top"), top);
            QCOMPARE(kept("other"), other);
        }
    }

    void tablesAreParsed_data() { test::addRows(tables); }
    void tablesAreParsed()
    {
        const auto& [name, text, paths] = test::currentRow(tables);
        const QByteArray file(name);
        const auto survives = [this, &file](const QByteArray& content) {
            write(file, content);
            QVERIFY(lookAtMadeUp());
        };
        test::feedTruncated(text, survives, std::max<qsizetype>(text.size() - 300, 0));
        write(file, text);
        const auto found = lookAtMadeUp();
        for (const QByteArray& each : paths)
            QVERIFY2(found->hasBelow(each), each.constData());
        for (const char* each : {"/tmp/abstract", "/a", "/cut", "/tmp/s", "/l", "/upp"})
            QVERIFY2(!found->hasBelow(each), each);
        QCOMPARE(found->hasBelow("/tmp"), file.endsWith("maps") || file.endsWith("unix"));
        QCOMPARE(found->has(makedev(8, 26), 77), file.endsWith("maps") || file.endsWith("locks"));
    }

    void filesOfRemoteServersAreNotAskedFor()
    {
        const QByteArray opened = path("top/a/b/file");
        const QByteArray named = path("top/a/named");
        write("top/a/named", "");
        write("proc/7/environ", "XAUTHORITY=/" + named);
        write("proc/7/status",
              "Name:\tx\nUid:" + ('\t' + QByteArray::number(::geteuid())).repeated(4));
        QCOMPARE(::symlink(opened.constData(), path("proc/7/task/7/fd/3").constData()), 0);
        QCOMPARE(::symlink("/", path("proc/7/root").constData()), 0);
        const auto has = [](const std::optional<FilesInUse>& found, const QByteArray& file) {
            struct stat info = {};
            return ::stat(file.constData(), &info) == 0 && found->has(info.st_dev, info.st_ino);
        };
        for (const QByteArray type : {"ext4", "nfs4", "fuseblk", "autofs"}) {
            const QByteArray root = "1 0 8:1 / / rw - ext4 s rw\n";
            const QByteArray nearest =
                (type.contains('k') || type == "ext4" ? "8:1 / " : "0:1 / ") + path("top/a") +
                " rw - " + type + " s rw\n";
            write("proc/7/mountinfo", root + "3 1 " + nearest);
            // It is the process's own table that counts.
            const QByteArray other = type == "nfs4" ? "ext4" : "nfs";
            write("proc/self/mountinfo",
                  root + "2 1 8:1 / " + path("top") + " rw - " + other + " s rw\n");
            const auto found = lookAtMadeUp();
            QCOMPARE(has(found, opened), type != "nfs4");
            QCOMPARE(found->hasBelow(path("top")), type == "nfs4");
            QCOMPARE(has(found, named), type == "ext4");
            QVERIFY(found->hasBelow('/' + named));
        }
    }

    void anIncompleteLookIsNone()
    {
        QVERIFY(!FilesInUse::look(path("none").constData()));
        QVERIFY(!FilesInUse::look(path("top").constData())); // without a process
        const int next = test::nextDescriptor();
        for (int spare = 0; spare <= 3; ++spare) {
            const auto look = [next, spare] {
                const test::FewDescriptors few(next + spare);
                const auto found = FilesInUse::look();
                return found ? 0 : found.error();
            };
            QCOMPARE(look(), spare == 3 ? 0 : EMFILE);
        }
    }

private:
    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<QDir> m_root;
    bool m_hasOwnMounts = false;
};

QTEST_GUILESS_MAIN(TestMovableEntry)
#include "tst_movable_entry.moc"
