// Tests what may be moved away on files that are really in use, locked, mounted or somebody else's,
// and the look through /proc on texts nobody would write.
#include "platform/linux/movable_entry.h"
#include "platform/linux/proc_fs.h"
#include "support/child_process.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

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
using test::Child;

namespace {

using Held = std::shared_ptr<void>; ///< What ends a preparation when it goes.
using Path = const QByteArray&;
using Prepare = std::function<Held(Path top)>; ///< In the entry "top", which holds "top/a/b/file".

constexpr uid_t nobody = 65534;

int openFile(Path path)
{
    return ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

void write(Path path, Path content)
{
    QVERIFY(QDir().mkpath(QFile::decodeName(path.left(path.lastIndexOf('/')))));
    QFile file(QFile::decodeName(path));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

Held childThat(const std::function<void()>& prepare)
{
    return std::make_shared<Child>(prepare);
}

Held holdOpen(Path path)
{
    return std::make_shared<UniqueFd>(openFile(path));
}

std::shared_ptr<UniqueFd> boundSocket(Path path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), std::begin(address.sun_path));
    auto socket = std::make_shared<UniqueFd>(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(socket->get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        qFatal("cannot bind a socket");
    return socket;
}

/// Maps the file and closes it.
void mapFile(Path path)
{
    const UniqueFd file(openFile(path));
    if (::mmap(nullptr, 1, PROT_READ, MAP_SHARED, file.get(), 0) == MAP_FAILED)
        ::_exit(1);
}

/// Works in the directory from a thread that shares nothing but memory with the process's others.
void workInThread(Path directory)
{
    std::thread([directory] {
        if (::unshare(CLONE_FS | CLONE_FILES) != 0 || ::chdir(directory.constData()) != 0)
            ::_exit(1);
        ::close(STDOUT_FILENO);
        test::waitForEnd();
    }).detach();
}

void runProgram(Path path)
{
    QFile::copy(u"/bin/sh"_s, QFile::decodeName(path));
    ::execl(path.constData(), "sh", "-c", "exec >&-; kill -STOP $$", nullptr);
    ::_exit(1);
}

/// Lets this process mount what no other sees; false where that is refused.
bool hasOwnMounts()
{
    static const bool has = ::unshare(CLONE_NEWNS) == 0 &&
                            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return has;
}

Held mounted(Path source, Path place)
{
    const char* type = source == "tmpfs" ? "tmpfs" : nullptr;
    if (::mount(source.constData(), place.constData(), type, type != nullptr ? 0 : MS_BIND,
                nullptr) != 0)
        return {};
    return {new QByteArray(place), [](QByteArray* at) {
                ::umount2(at->constData(), MNT_DETACH);
                delete at;
            }};
}

} // namespace

class TestMovableEntry : public QObject
{
    Q_OBJECT

    QByteArray path(Path name = {}) const
    {
        return QFile::encodeName(QDir(m_directory->path()).canonicalPath()) + '/' + name;
    }

    EntryCheck check(Path name, const QList<QByteArray>& protectedPaths = {}) const
    {
        auto inUse = FilesInUse::look();
        if (!inUse)
            qFatal("cannot look");
        return check(name, *inUse, protectedPaths);
    }
    EntryCheck check(Path name, const FilesInUse& inUse,
                     const QList<QByteArray>& protectedPaths = {}) const
    {
        const UniqueFd parent(::open(path().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return EntryChecker(inUse, protectedPaths)
            .check(parent.get(), name.constData(), path(name));
    }

private Q_SLOTS:
    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        write(path("top/a/b/file"), QByteArray(10'000, 'x'));
    }

    void entryIsKept_data()
    {
        using enum KeptBecause;
        QTest::addColumn<KeptBecause>("reason");
        QTest::addColumn<Prepare>("prepare");
        const auto row = [](const char* name, KeptBecause reason, const Prepare& prepare) {
            QTest::newRow(name) << reason << prepare;
        };
        const auto child = [&](const char* name, void (*use)(Path), Path where) {
            row(name, InUse, [=](Path top) { return childThat([=] { use(top + where); }); });
        };
        row("plain", Nothing, [](Path) { return Held(); });
        child(
            "open", [](Path file) { static_cast<void>(openFile(file)); }, "/a/b/file");
        child("mapped and closed", mapFile, "/a/b/file");
        child("executable", runProgram, "/a/b/program");
        const auto work = [](Path at) { static_cast<void>(::chdir(at.constData())); };
        child("working directory", work, "/a");
        child("the entry is a working directory", work, "");
        child("a thread's working directory", workInThread, "/a");
        row("bound socket", InUse, [](Path top) { return boundSocket(top + "/a/socket"); });
        row("socket bound by another name", SpecialFile, [](Path top) {
            const auto socket = boundSocket(top + "/a/socket");
            ::rename((top + "/a/socket").constData(), (top + "/a/b/s").constData());
            return socket;
        });
        row("socket nobody has", SpecialFile, [](Path top) {
            boundSocket(top + "/a/socket");
            return Held();
        });
        row("FIFO", SpecialFile, [](Path top) {
            ::mkfifo((top + "/a/fifo").constData(), 0600);
            return Held();
        });
        row("file of two names", Nothing, [](Path top) {
            ::link((top + "/a/b/file").constData(), (top + ".link").constData());
            return Held();
        });
        row("open by its other name", InUse, [](Path top) {
            ::link((top + "/a/b/file").constData(), (top + ".link").constData());
            return holdOpen(top + ".link");
        });
        row("links to what must stay", Nothing, [](Path top) {
            ::symlink("/dev/null", (top + "/a/device").constData());
            ::symlink("..", (top + "/a/up").constData());
            ::symlink((top + ".open").constData(), (top + "/a/open").constData());
            return holdOpen(top + ".open");
        });
        if (::geteuid() != 0)
            return;
        row("another owner's", NotOwn, [](Path top) {
            ::chown((top + "/a/b/file").constData(), nobody, nobody);
            return Held();
        });
        row("device", SpecialFile, [](Path top) {
            ::mknod((top + "/a/b/device").constData(), S_IFCHR | 0600, makedev(1, 3));
            return Held();
        });
    }
    void entryIsKept()
    {
        QFETCH(KeptBecause, reason);
        QFETCH(Prepare, prepare);
        Held held = prepare(path("top"));
        QCOMPARE(check("top").keptBecause, reason);
        QCOMPARE(check("none").keptBecause, KeptBecause::Vanished);
        held.reset();
        if (reason == KeptBecause::InUse &&
            !QFile::exists(m_directory->filePath(u"top/a/socket"_s)))
            QCOMPARE(check("top").keptBecause, KeptBecause::Nothing);
    }

    void figuresAreThoseOfDu()
    {
        const EntryCheck found = check("top");
        qint64 bytes = 0;
        for (const char* each : {"top", "top/a", "top/a/b", "top/a/b/file"}) {
            struct stat info = {};
            QCOMPARE(::stat(path(each).constData(), &info), 0);
            bytes += info.st_blocks * 512;
        }
        QCOMPARE(found.bytes, bytes);
        QCOMPARE(found.files, 1);
        QCOMPARE(keptBecauseText(found.keptBecause), QString());
    }

    void directoriesWithProtectedOnesStay()
    {
        ::symlink("top/a/b", path("link").constData());
        for (const char* place : {"top", "top/a/b", "link"})
            QCOMPARE(check("top", {path("none"), path(place)}).keptBecause,
                     KeptBecause::SystemPlace);
        QCOMPARE(check("link", {path("top")}).keptBecause, KeptBecause::Nothing);
    }

    void namesAreKnown_data()
    {
        QTest::addColumn<KeptBecause>("reason");
        for (const char* name : {".Trash", ".Trash-1000", ".X0-lock", ".X11-unix", ".ICE-unix",
                                 "systemd-private-0ab-x.service-Y", "snap.0_x", "krb5cc_0"})
            QTest::newRow(name) << KeptBecause::SystemPlace;
        for (const char* name : {".Trash-can", "Trash", ".Xy-lock", "snap.jpg", "x.lock", "\xff*"})
            QTest::newRow(name) << KeptBecause::Nothing;
        QTest::newRow("top.lock") << KeptBecause::Nothing;
        QTest::newRow("db.sock.lock") << KeptBecause::InUse;
    }
    void namesAreKnown()
    {
        const auto database = boundSocket(path("db.sock"));
        const QByteArray name = QTest::currentDataTag();
        ::close(openFile(path(name)));
        QTEST(check(name).keptBecause, "reason");
        ::unlink(path(name).constData()); // QTemporaryDir cannot remove every name
    }

    void whatCannotBeSeenStays()
    {
        if (::geteuid() != 0)
            QSKIP("root alone can become somebody else");
        for (const char* each : {"", "top", "top/a", "top/a/b"})
            QCOMPARE(::chown(path(each).constData(), nobody, nobody), 0);
        QCOMPARE(::chmod(path("top/a").constData(), 0), 0);
        const auto inUse = FilesInUse::look();
        QCOMPARE(::seteuid(nobody), 0);
        const KeptBecause reason = check("top", *inUse).keptBecause;
        QCOMPARE(::seteuid(0), 0);
        QCOMPARE(reason, KeptBecause::Unreadable);
    }

    void mountsStay_data()
    {
        QTest::addColumn<QByteArray>("source");
        QTest::addColumn<QByteArray>("place");
        QTest::newRow("directory") << QByteArray("/top.other") << QByteArray("/a/b");
        QTest::newRow("file") << QByteArray("/top.other/file") << QByteArray("/a/b/file");
        QTest::newRow("file system") << QByteArray("tmpfs") << QByteArray("/a b");
        QTest::newRow("the entry") << QByteArray("/top.other") << QByteArray("");
    }
    void mountsStay()
    {
        QFETCH(QByteArray, source);
        QFETCH(QByteArray, place);
        if (!hasOwnMounts())
            QSKIP("this machine refuses a mount namespace");
        write(path("top.other/file"), "y");
        QVERIFY(QDir().mkpath(m_directory->filePath(u"top/a b"_s)));
        const Held held =
            mounted(source == "tmpfs" ? source : path() + source, path("top") + place);
        QVERIFY(held);
        const auto inUse = FilesInUse::look();
        QVERIFY(inUse->hasMountBelow(path("top")));
        QCOMPARE(check("top", *inUse).keptBecause, KeptBecause::MountPoint);
        // And where the table of mounts does not tell.
        write(path("proc/7/maps"), "");
        const auto nothing = FilesInUse::look(path("proc").constData(), "/none");
        QCOMPARE(check("top", *nothing).keptBecause, KeptBecause::MountPoint);
        QCOMPARE(check("top.other").keptBecause, KeptBecause::Nothing);
    }

    void useInAnotherMountNamespaceIsSeen()
    {
        if (!hasOwnMounts())
            QSKIP("this machine refuses a mount namespace");
        QVERIFY(QDir().mkpath(m_directory->filePath(u"elsewhere"_s)));
        const Child other([this] {
            if (::unshare(CLONE_NEWNS) != 0 ||
                ::mount(path("top").constData(), path("elsewhere").constData(), nullptr, MS_BIND,
                        nullptr) != 0 ||
                openFile(path("elsewhere/a/b/file")) < 0)
                ::_exit(1);
        });
        QCOMPARE(check("top").keptBecause, KeptBecause::InUse);
        QCOMPARE(check("elsewhere").keptBecause, KeptBecause::Nothing);
    }

    void tablesAreParsed_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArrayList>("paths");
        const auto row = [](const char* name, Path file, Path text, const QByteArrayList& paths) {
            QTest::newRow(name) << file << text << paths;
        };
        const QByteArray longLine = QByteArray(20'000, 'z') + " /cut 1 2 3 4 5 6 7 /cut\n";
        row("maps", "proc/7/task/7/maps",
            "7f0-7f1 rw-p 00000000 00:00 0    [heap]\n7f0-7f1 \n\n" + longLine +
                "7f1-7f2 r--p 00000000 08:1a 77                 /tmp/ a\\012\\101 b\n"
                "7f2-7f3 r--p 00000000 00:1b 18446744073709551616 /big\n",
            {"/tmp/ a\n\\101 b", "/big"});
        row("sockets", "proc/net/unix",
            longLine + "Num       RefCount Protocol Flags    Type St Inode Path\n"
                       "000: 00000002 00000000 00010000 0001 01  4711 @/tmp/abstract\n"
                       "000: 00000002 00000000 00010000 0001 01  4711 /tmp/s  x\n"
                       "000: 00000002 00000000 00010000 0001 01  4711",
            {"/tmp/s  x"});
        row("mounts", "proc/self/mountinfo",
            "1 0 0:1 / / rw - overlay o rw,lowerdir=/l1:/l\\0402,upperdir=/up\n\n1 2 3 4\n" +
                longLine,
            {"/l1", "/l 2", "/up"});
        row("swap", "proc/swaps", "Filename Type\n/swap\\040file  file 1 0 -2\n", {"/swap file"});
        row("loop device", "sys/block/loop0/loop/backing_file", "/image \n", {"/image "});
        row("credentials", "proc/7/environ",
            QByteArray("A=/a\0KRB5CCNAME=FILE:/tk\0XAUTHORITY=/x/auth\0XAUTHORITY", 58),
            {"/tk", "/x/auth"});
        row("locks", "proc/locks",
            "1: POSIX  ADVISORY  WRITE 811 08:1a:77 0 EOF\n1: -> FLOCK x:y:z ::: 08:1a:\n", {});
    }
    void tablesAreParsed()
    {
        QFETCH(QByteArray, file);
        QFETCH(QByteArray, text);
        QFETCH(QByteArrayList, paths);
        const auto look = [this] {
            return FilesInUse::look(path("proc").constData(), path("sys").constData());
        };
        write(path("proc/7/x"), "");
        const qsizetype end = text.size();
        for (qsizetype size = std::max(end - 300, qsizetype{0}); size <= end; ++size) {
            write(path(file), text.left(size));
            QVERIFY(look());
        }
        const auto found = look();
        for (Path each : paths)
            QVERIFY2(found->hasBelow(each), each.constData());
        for (const char* each : {"/tmp/abstract", "/a", "/cut", "/tmp/s", "/l", "/upp"})
            QVERIFY2(!found->hasBelow(each), each);
        QCOMPARE(found->hasBelow("/tmp"), file.endsWith("maps") || file.endsWith("unix"));
        QCOMPARE(found->has(makedev(8, 26), 77), file.endsWith("maps") || file.endsWith("locks"));
    }

    void filesOfRemoteServersAreNotAskedFor()
    {
        QVERIFY(QDir().mkpath(m_directory->filePath(u"proc/7/task/7/fd"_s)));
        ::symlink(path("top/a/b/file").constData(), path("proc/7/task/7/fd/3").constData());
        struct stat file = {};
        QCOMPARE(::stat(path("top/a/b/file").constData(), &file), 0);
        const QByteArray mounts = "1 0 0:1 / / rw - ext4 s rw\n1 0 0:1 / " + path("top") +
                                  " rw - nfs4 s rw\n1 0 0:1 / " + path("top/a") + " rw - ";
        for (const char* type : {"ext4", "nfs4"}) {
            write(path("proc/self/mountinfo"), mounts + type + " s rw\n");
            const auto found = FilesInUse::look(path("proc").constData(), "/none");
            const bool isLocal = QByteArray(type) == "ext4";
            QCOMPARE(found->has(file.st_dev, file.st_ino), isLocal);
            QCOMPARE(found->hasBelow(path("top")), !isLocal);
        }
    }

    void anIncompleteLookIsNone()
    {
        QVERIFY(!FilesInUse::look(path("none").constData()));
        QVERIFY(!FilesInUse::look(path("top").constData())); // without a process
        const int next = ::dup(STDIN_FILENO);
        rlimit limits = {};
        ::getrlimit(RLIMIT_NOFILE, &limits);
        for (rlim_t spare = 1; spare <= 3; ++spare) {
            const rlimit few{static_cast<rlim_t>(next) + spare, limits.rlim_max};
            ::setrlimit(RLIMIT_NOFILE, &few);
            const bool looked = FilesInUse::look().has_value();
            ::setrlimit(RLIMIT_NOFILE, &limits);
            QVERIFY(!looked);
        }
        ::close(next);
    }

private:
    std::unique_ptr<QTemporaryDir> m_directory;
};

QTEST_GUILESS_MAIN(TestMovableEntry)
#include "tst_movable_entry.moc"
