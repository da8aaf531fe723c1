// Tests what may be moved away on files that are really in use, mounted or somebody else's, and the
// look through /proc on texts nobody would write.
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/movable_entry.h"
#include "support/child_process.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <future>
#include <memory>
#include <thread>

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

using namespace korvane;
using namespace korvane::linux_platform;
using namespace Qt::StringLiterals;
using enum KeptBecause;
using test::Child;

namespace {

constexpr uid_t nobody = 65534;

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
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray path = QFile::encodeName(QDir::currentPath()) + '/' + place;
        std::copy(path.begin(), path.end(), std::begin(address.sun_path));
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            std::rename(place, then) != 0)
            ::_exit(1);
    };
}

/// Lets this process mount what no other sees; false where that is refused.
bool hasOwnMounts()
{
    static const bool has = ::unshare(CLONE_NEWNS) == 0 &&
                            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return has;
}

} // namespace

class TestMovableEntry : public QObject
{
    Q_OBJECT

    QByteArray path(const QByteArray& name = {}) const
    {
        return QFile::encodeName(QDir(m_directory->path()).canonicalPath()) + '/' + name;
    }

    void write(const QByteArray& name, const QByteArray& content) const
    {
        const QByteArray file = path(name);
        QVERIFY(QDir().mkpath(QFile::decodeName(file.left(file.lastIndexOf('/')))));
        const UniqueFd fd(::open(file.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        QCOMPARE(::write(fd.get(), content.constData(), static_cast<std::size_t>(content.size())),
                 content.size());
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
    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        write("top/a/b/file", QByteArray(10'000, 'x'));
        write("other/file", "");
        write("proc/7/x", "");
        QVERIFY(QDir().mkpath(m_directory->filePath(u"top/a b"_s)));
        QVERIFY(QDir().mkpath(m_directory->filePath(u"proc/7/task/7/fd"_s)));
    }

    void entryIsKept_data()
    {
        QTest::addColumn<KeptBecause>("reason");
        QTest::addColumn<Deed>("deed");
        const auto row = [](const char* name, KeptBecause reason, const Deed& deed) {
            QTest::newRow(name) << reason << deed;
        };
        row("plain", Nothing, [] {});
        row("open", InUse, shell("exec 3<top/a/b/file"));
        row("mapped and closed", InUse, mapAndClose);
        row("executable", InUse,
            shell("cp /bin/sh top/a/x; exec top/a/x -c 'exec >&-; kill -STOP $$'"));
        row("working directory", InUse, shell("cd top/a"));
        row("the entry is one", InUse, shell("cd top"));
        row("a thread's working directory", InUse, inThread([] { return ::chdir("top/a"); }));
        row("open in a thread", InUse, inThread([] { return ::open("top/a/b/file", O_RDONLY); }));
        row("bound socket", InUse, bindAndMove("top/a/socket", "top/a/socket"));
        row("bound by another name", SpecialFile, bindAndMove("socket", "top/a/socket"));
        row("FIFO", SpecialFile, shell("mkfifo top/a/fifo"));
        row("file of two names", Nothing, shell("ln top/a/b/file link"));
        row("open by the other one", InUse, shell("ln top/a/b/file link; exec 3<link"));
        row("links to what must stay", Nothing,
            shell("ln -s ../../other/file /dev/null top/a; ln -s .. top/a/up; exec 3<other/file"));
        row("named through a link", InUse, withVariable("XAUTHORITY=$PWD/link/b/file"));
        row("the link that is named", InUse, withVariable("XAUTHORITY=$PWD//top/link/file"));
        row("named with two slashes", InUse, withVariable("ICEAUTHORITY=$PWD//top/a/b/file"));
        row("named from another place", InUse, withVariable("TMPDIR=$PWD/other/../top/a"));
        row("on the way to a name", InUse, withVariable("TMPDIR=$PWD//top/../other"));
        row("named relatively", InUse, withVariable("KRB5CCNAME=DIR::top/a/b/file"));
        row("named for the future", InUse, withVariable("XDG_RUNTIME_DIR=link/to/be/made"));
        row("named beside it", Nothing, withVariable("TMPDIR=./other/file/none"));
        if (::geteuid() != 0)
            return;
        row("another owner's", NotOwn, shell("chown 65534 top/a/b/file"));
        row("device", SpecialFile, shell("mknod top/a/b/null c 1 3"));
    }
    void entryIsKept()
    {
        QFETCH(KeptBecause, reason);
        QFETCH(Deed, deed);
        Child child([&] {
            if (::chdir(path().constData()) == 0)
                deed();
        });
        QCOMPARE(kept("top"), reason);
        siginfo_t end = {};
        ::waitid(P_PID, static_cast<id_t>(child.pid()), &end, WEXITED | WNOHANG | WNOWAIT);
        QCOMPARE(end.si_pid, 0); // it has done what it was to do
        child.reap();
        const bool hasSocket = QFile::exists(m_directory->filePath(u"top/a/socket"_s));
        if (reason == InUse)
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

    void whatCannotBeSeenStays_data()
    {
        QTest::addColumn<QByteArray>("deed");
        QTest::addColumn<KeptBecause>("reason");
        QTest::newRow("nothing") << QByteArray(":") << Nothing;
        QTest::newRow("directory") << QByteArray("chmod 0 top/a") << Unreadable;
        QTest::newRow("file") << QByteArray("chmod 0 top/a/b/file") << NotOwn;
        QTest::newRow("who has it open") << QByteArray("exec 3<top/a/b/file") << InUse;
    }
    void whatCannotBeSeenStays()
    {
        QFETCH(QByteArray, deed);
        QFETCH(KeptBecause, reason);
        if (::geteuid() != 0)
            QSKIP("root alone can become somebody else");
        const Child child([&] {
            if (::chdir(path().constData()) == 0)
                shell("chown -R 65534 .; " + deed)();
        });
        QCOMPARE(::seteuid(nobody), 0);
        const KeptBecause found = kept("top");
        QCOMPARE(::seteuid(0), 0);
        QCOMPARE(found, reason);
    }

    void mountsStay_data()
    {
        QTest::addColumn<QByteArray>("source");
        QTest::addColumn<QByteArray>("place");
        const auto row = [](const char* name, const QByteArray& source, const QByteArray& place) {
            QTest::newRow(name) << source << place;
        };
        row("directory", "other", "top/a/b");
        row("file", "other/file", "top/a/b/file");
        row("file system", "", "top/a b");
        row("the entry", "other", "top");
    }
    void mountsStay()
    {
        QFETCH(QByteArray, source);
        QFETCH(QByteArray, place);
        if (!hasOwnMounts())
            QSKIP("this machine refuses a mount namespace");
        const QByteArray at = path(place);
        const unsigned long flags = source.isEmpty() ? 0 : MS_BIND;
        QCOMPARE(::mount(path(source).constData(), at.constData(), "tmpfs", flags, nullptr), 0);
        const KeptBecause reason = kept("top");
        // And where the table of mounts does not tell.
        const KeptBecause reasonWithoutTable = check("top", lookAtMadeUp()).keptBecause;
        QCOMPARE(::umount2(at.constData(), MNT_DETACH), 0);
        QCOMPARE(reason, MountPoint);
        QCOMPARE(reasonWithoutTable, MountPoint);
        QCOMPARE(kept("top"), Nothing);
    }

    void useInAnotherMountNamespaceIsSeen_data()
    {
        QTest::addColumn<QByteArrayList>("mounts"); ///< Sources and places; no source is a tmpfs.
        QTest::addColumn<KeptBecause>("top");
        QTest::addColumn<KeptBecause>("other");
        const auto row = [](const char* name, const QByteArrayList& mounts, KeptBecause top,
                            KeptBecause other) { QTest::newRow(name) << mounts << top << other; };
        row("the entry and a mount point", {"top", "other"}, InUse, MountPoint);
        row("source and place within", {"top/a b", "other/in"}, InUse, MountPoint);
        row("files", {"top/a/b/file", "other/file"}, InUse, MountPoint);
        row("tmpfs", {"", "top/a/b"}, MountPoint, Nothing);
        row("a source above", {".", "other"}, Nothing, MountPoint);
        row("by another path", {".", "other", "", "other/top/a"}, MountPoint, MountPoint);
        row("of the same path elsewhere", {"", ".", "", "top"}, Nothing, Nothing);
        row("open", {".", "other", "other/top/a/b/file", ""}, InUse, MountPoint);
    }
    void useInAnotherMountNamespaceIsSeen()
    {
        QFETCH(QByteArrayList, mounts);
        if (!hasOwnMounts())
            QSKIP("this machine refuses a mount namespace");
        QVERIFY(QDir().mkpath(m_directory->filePath(u"other/in"_s)));
        for (const bool inThread : {false, true}) {
            const auto useAll = [&] {
                bool isDone = ::unshare(CLONE_FS | CLONE_NEWNS) == 0;
                for (qsizetype i = 0; i < mounts.size(); i += 2) {
                    const QByteArray source = path(mounts[i]);
                    const QByteArray place = path(mounts[i + 1]);
                    const unsigned long flags = mounts[i].isEmpty() ? 0 : MS_BIND;
                    ::mkdir(place.constData(), 0700);
                    if (mounts[i + 1].isEmpty())
                        isDone = isDone && ::open(source.constData(), O_RDONLY | O_CLOEXEC) >= 0;
                    else
                        isDone = isDone && ::mount(source.constData(), place.constData(), "tmpfs",
                                                   flags, nullptr) == 0;
                }
                if (!isDone)
                    ::_exit(1);
            };
            const Child child([&] {
                if (inThread)
                    std::thread([&] {
                        useAll();
                        ::close(STDOUT_FILENO);
                        test::waitForEnd();
                    }).join();
                useAll();
            });
            QTEST(kept("top"), "top");
            QTEST(kept("other"), "other");
        }
    }

    void tablesAreParsed_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArrayList>("paths");
        const auto row = [](const QByteArray& file, const QByteArray& text,
                            const QByteArrayList& paths) {
            QTest::newRow(file.constData()) << file << text << paths;
        };
        const QByteArray longLine = QByteArray(20'000, 'z') + " /cut 1 2 3 4 5 6 7 /cut\n";
        row("proc/7/task/7/maps",
            "7f0-7f1 rw-p 00000000 00:00 0    [heap]\n7f0-7f1 \n\n" + longLine +
                "7f1-7f2 r--p 00000000 08:1a 77                 /tmp/ a\\012\\101 b \n"
                "7f2-7f3 r--p 00000000 00:1b 18446744073709551616 /big\n",
            {"/tmp/ a\n\\101 b ", "/big"});
        row("proc/net/unix",
            longLine + "Num       RefCount Protocol Flags    Type St Inode Path\n"
                       "000: 00000002 00000000 00010000 0001 01  4711 @/tmp/abstract\n"
                       "000: 00000002 00000000 00010000 0001 01  4711 /tmp/s  x\n"
                       "000: 00000002 00000000 00010000 0001 01  4711",
            {"/tmp/s  x"});
        row("proc/self/mountinfo",
            longLine +
                "1 2 3\n\n1 0 0:1 / / rw - overlay o rw,lowerdir=/l1:/l\\0402,upperdir=/up\n",
            {"/l1", "/l 2", "/up"});
        row("proc/swaps", "Filename Type\n/swap\\040file  file 1 0 -2\n", {"/swap file"});
        row("sys/block/loop0/loop/backing_file", "/image \n", {"/image "});
        row("proc/7/environ",
            QByteArray("A=/a|KRB5CCNAME=FILE:/tk|TMPDIR=/x/t|XAUTHORITY=/x/auth|TMPDIR")
                .replace('|', '\0'),
            {"/tk", "/x/auth", "/x/t"});
        row("proc/locks",
            longLine + "1: POSIX  ADVISORY  WRITE 811 08:1a:77 0 EOF\n1: -> x:y:z ::: 08:1a:\n",
            {});
    }
    void tablesAreParsed()
    {
        QFETCH(QByteArray, file);
        QFETCH(QByteArray, text);
        QFETCH(QByteArrayList, paths);
        const qsizetype end = text.size();
        for (qsizetype size = std::max(end - 300, qsizetype{0}); size <= end; ++size) {
            write(file, text.left(size));
            QVERIFY(lookAtMadeUp());
        }
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
            write("proc/self/mountinfo",
                  root + "2 1 0:1 / " + path("top") + " rw - nfs s rw\n3 2 " + nearest);
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
        rlimit limits = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limits), 0);
        const UniqueFd next(::dup(STDIN_FILENO));
        for (rlim_t spare = 0; spare <= 3; ++spare) {
            const rlimit few{static_cast<rlim_t>(next.get()) + 1 + spare, limits.rlim_max};
            QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);
            const bool looked = FilesInUse::look().has_value();
            QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limits), 0);
            QCOMPARE(looked, spare == 3);
        }
    }

private:
    std::unique_ptr<QTemporaryDir> m_directory;
};

QTEST_GUILESS_MAIN(TestMovableEntry)
#include "tst_movable_entry.moc"
