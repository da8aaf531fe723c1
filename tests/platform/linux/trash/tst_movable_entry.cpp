// Tests what may be moved away on files that are really in use, mounted or somebody else's, and the
// look through /proc on texts nobody would write.
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/movable_entry.h"
#include "support/damage.h"
#include "support/file_tree.h"
#include "support/refusals.h"
#include "support/system.h"

#include <QLocalServer>

#include <array>
#include <atomic>

#include <sys/mman.h>
#include <sys/sysmacros.h>

using namespace korvane;
using namespace korvane::linux_platform;
using namespace Qt::StringLiterals;
using enum KeptBecause;
using test::Child;
using test::runShell;

namespace {

/// What a child process does before it waits, in the directory of the entry "top".
using Deed = std::function<void()>;

/// A program whose environment has the variable. The directory has a link to "top/a", and "top" one
/// to another place.
Deed withVariable(const QByteArray& variable)
{
    return runShell("ln -s top/a link; ln -s ../other top/link; exec env " + variable +
                    " sh -c 'exec >&-; kill -STOP $$'");
}

/// In a thread that shares nothing but memory with the others of its process.
Deed inThread(int (*use)())
{
    return [use] {
        std::atomic<bool> isDone = false;
        std::thread([use, &isDone] {
            if (::unshare(CLONE_FS | CLONE_FILES) != 0 || use() < 0)
                ::_exit(1);
            ::close(STDOUT_FILENO);
            isDone = true;
            test::waitForEnd();
        }).detach();
        while (!isDone)
            ::usleep(1000);
    };
}

/// The socket stays open; its file is then moved.
Deed bindAndMove(const char* place, const char* then)
{
    return [=] {
        static QLocalServer server;
        if (!server.listen(QDir::current().filePath(QLatin1StringView(place))) ||
            std::rename(place, then) != 0)
            ::_exit(1);
    };
}

/// Why the entry "top" stays, for root or nobody where those are named, and the deed.
const test::Cases<KeptBecause, Deed> deeds{
    {"plain", Nothing, [] {}},
    {"open", InUse, runShell("exec 3<top/a/b/file")},
    {"mapped and closed", InUse,
     [] {
         const UniqueFd file(::open("top/a/b/file", O_RDONLY | O_CLOEXEC));
         static_cast<void>(::mmap(nullptr, 1, PROT_READ, MAP_SHARED, file.get(), 0));
     }},
    {"executable", InUse,
     runShell("cp /bin/sh top/a/x; exec top/a/x -c 'exec >&-; kill -STOP $$'")},
    {"working directory", InUse, runShell("cd top/a")},
    {"the entry is one", InUse, runShell("cd top")},
    {"a thread's working directory", InUse, inThread([] { return ::chdir("top/a"); })},
    {"open in a thread", InUse, inThread([] { return ::open("top/a/b/file", O_RDONLY); })},
    {"bound socket", InUse, bindAndMove("top/a/socket", "top/a/socket")},
    {"bound by another name", SpecialFile, bindAndMove("socket", "top/a/socket")},
    {"FIFO", SpecialFile, runShell("mkfifo top/a/fifo")},
    {"file of two names", Nothing, runShell("ln top/a/b/file link")},
    {"open by the other one", InUse, runShell("ln top/a/b/file link; exec 3<link")},
    {"links to what must stay", Nothing,
     runShell("ln -s ../../other/file /dev/null top/a; ln -s .. top/a/up; exec 3<other/file")},
    {"named through a link", InUse, withVariable("XAUTHORITY=$PWD/link/b/file")},
    {"the link that is named", InUse, withVariable("ICEAUTHORITY=$PWD//top/link/file")},
    {"named from another place", InUse, withVariable("TMPDIR=$PWD/other/../top/a")},
    {"on the way to a name", InUse, withVariable("TMPDIR=$PWD//top/../other")},
    {"named relatively", InUse, withVariable("KRB5CCNAME=DIR::top/a/b/file")},
    {"named for the future", InUse, withVariable("XDG_RUNTIME_DIR=link/to/be/made")},
    {"named beside it", Nothing, withVariable("TMPDIR=./other/file/none")},
    {"named by too long a way", Nothing,
     withVariable("TMPDIR=$PWD$(printf '/other/..%.0s' $(seq 200))//top/a")},
    {"named second", Nothing, // the variable is there twice
     [] {
         const std::array<const char*, 3> all{"TMPDIR=other", "TMPDIR=other/../top/a", nullptr};
         ::execle("/bin/sh", "sh", "-c", "exec >&-; kill -STOP $$", nullptr, all.data());
     }},
    {"root: named by another user's", Nothing,
     withVariable("XAUTHORITY=$PWD/link/b/file setpriv --reuid=65534 --clear-groups")},
    {"root: another owner's", NotOwn, runShell("chown 65534 top/a/b/file")},
    {"root: device", SpecialFile, runShell("mknod top/a/b/null c 1 3")},
    {"nobody: nothing", Nothing, runShell("chown -R 65534 .")},
    {"nobody: unseen directory", Unreadable, runShell("chown -R 65534 .; chmod 0 top/a")},
    {"nobody: unseen file", NotOwn, runShell("chown -R 65534 .; chmod 0 top/a/b/file")},
    {"nobody: unseen opener", InUse, runShell("chown -R 65534 .; exec 3<top/a/b/file")},
};

/// How it is mounted at $0, and that place.
const test::Cases<QByteArray, QString> mounts{
    {"directory", "mount --bind other $0", u"top/a/b"_s},
    {"file", "mount --bind other/file $0", u"top/a/b/file"_s},
    {"file system", "mount -t tmpfs none \"$0\"", u"top/a b"_s},
    {"the entry", "mount --bind other $0", u"top"_s},
};

/// What is mounted, and why "top" and "other" stay.
const test::Cases<QByteArray, KeptBecause, KeptBecause> mountsElsewhere{
    {"the entry and a mount point", "mount --bind top other", InUse, MountPoint},
    {"source and place within", "mount --bind 'top/a b' other/in", InUse, MountPoint},
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

    MoveVerdict judged(const QByteArray& name, const std::optional<FilesInUse>& inUse,
                       const QList<QByteArray>& protectedPaths = {}) const
    {
        const UniqueFd parent(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return MoveJudge(inUse.value(), protectedPaths)
            .judge(parent.get(), name.constData(), m_root + name);
    }
    KeptBecause kept(const QByteArray& name, const QList<QByteArray>& protectedPaths = {}) const
    {
        return judged(name, FilesInUse::look(), protectedPaths).keptBecause;
    }

    /// A look through a directory of the shape of /proc, and another one of that of /sys.
    static OrErrno<FilesInUse> lookAtMadeUp() { return FilesInUse::look("proc", "sys"); }

private Q_SLOTS:
    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        m_root = QFile::encodeName(QDir(m_directory->path()).canonicalPath()) + '/';
        QVERIFY(QDir::setCurrent(m_directory->path()));
        test::writeFile(u"top/a/b/file"_s, QByteArray(10'000, 'x'));
        test::makeTree(u"."_s, u"top/a b/|other/in/|other/file=0|proc/7/task/7/fd/"_s);
    }

    void entryIsKept_data() { test::addRows(deeds); }
    void entryIsKept()
    {
        const auto& [name, reason, deed] = test::currentRow(deeds);
        if (::geteuid() != 0 && QByteArray(name).contains(": "))
            QSKIP("root alone can become somebody else, and make such things");
        Child child(deed);
        const uid_t user = QByteArray(name).startsWith("nobody") ? test::nobody : ::geteuid();
        QCOMPARE(::seteuid(user), 0);
        const KeptBecause found = kept("top");
        QCOMPARE(::seteuid(::getuid()), 0);
        QCOMPARE(found, reason);
        QVERIFY(child.isRunning()); // it has done what it was to do
        child.reap();
        if (reason == InUse && user == ::geteuid())
            QCOMPARE(kept("top"), QFile::exists(u"top/a/socket"_s) ? SpecialFile : Nothing);
    }

    void sizeIsThatOfTheFiles()
    {
        const MoveVerdict found = judged("top", FilesInUse::look());
        QCOMPARE(QString::number(found.bytes), test::shell("printf %s $(du -sB1 top | cut -f1)"));
        QCOMPARE(kept("none"), Vanished);
        QCOMPARE(judged("top", lookAtMadeUp()).keptBecause, Unconfirmed); // on a mount of no table
    }

    void directoriesWithProtectedOnesStay()
    {
        test::makeTree(u"."_s, u"link>top/a/b"_s);
        for (const char* place : {"top", "top/a/b", "link"})
            QCOMPARE(kept("top", {"none", place}), SystemPlace);
        QCOMPARE(kept("link", {"top/a/b"}), Nothing);
    }

    void namesAreKnown()
    {
        for (const char* name : {".Trash", ".Trash-1000", ".X99-lock", ".X11-unix", ".ICE-unix",
                                 "systemd-private-0ab-x.service-Y", "snap.0_x", "krb5cc_0"})
            QCOMPARE(kept(name), SystemPlace);
        for (const char* name : {".Trash-can", "Trash", ".Xy-lock", "snap.jpg", "b.lock"}) {
            test::makeTree(u"."_s, QLatin1StringView(name) + "=0"_L1);
            QCOMPARE(kept(name), Nothing);
        }
        QCOMPARE(::mknod("b", S_IFSOCK | 0600, 0), 0);
        QCOMPARE(kept("b.lock"), InUse);
    }

    void mountsStay_data() { test::addRows(mounts); }
    void mountsStay()
    {
        const auto& [name, script, place] = test::currentRow(mounts);
        if (!test::makeMountsOwn())
            QSKIP("this machine refuses a mount namespace");
        test::writeFile(u"proc/self/mountinfo"_s, test::readFile(u"/proc/self/mountinfo"_s));
        QCOMPARE(test::shell(script + " 2>&1", {place}), QString());
        // And where the table of mounts does not tell yet.
        const QList reasons{kept("top"), judged("top", lookAtMadeUp()).keptBecause};
        QCOMPARE(test::shell("umount -l \"$0\" 2>&1", {place}), QString());
        QCOMPARE(reasons, QList({MountPoint, MountPoint}));
        QCOMPARE(kept("top"), Nothing);
    }

    void useInAnotherMountNamespaceIsSeen_data() { test::addRows(mountsElsewhere); }
    void useInAnotherMountNamespaceIsSeen()
    {
        const auto& [name, script, top, other] = test::currentRow(mountsElsewhere);
        if (!test::makeMountsOwn())
            QSKIP("this machine refuses a mount namespace");
        const bool opens = QByteArray(name) == "open";
        const auto mountAll = [opens, line = "set -e; " + script] {
            if (::unshare(CLONE_FS | CLONE_NEWNS) != 0 || std::system(line.constData()) != 0 ||
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
        const auto survives = [&file](const QByteArray& content) {
            test::writeFile(QString::fromUtf8(file), content);
            QVERIFY(lookAtMadeUp());
        };
        test::feedTruncated(text, survives, std::max<qsizetype>(text.size() - 300, 0));
        survives(text);
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
        const QByteArray opened = m_root + "top/a/b/file";
        const QByteArray named = m_root + "top/a/named";
        test::shell(R"(cd proc/7; : >"$1"; printf XAUTHORITY=/%s "$1" >environ
            cp /proc/self/status .; ln -s "$0" task/7/fd/3; ln -s / root)",
                    {QFile::decodeName(opened), QFile::decodeName(named)});
        const auto has = [](const std::optional<FilesInUse>& found, const QByteArray& file) {
            struct stat info = {};
            return ::stat(file.constData(), &info) == 0 && found->has(info.st_dev, info.st_ino);
        };
        for (const QByteArray type : {"ext4", "nfs4", "fuseblk", "autofs"}) {
            const QByteArray root = "1 0 8:1 / / rw - ext4 s rw\n";
            const QByteArray device = type.contains('k') || type == "ext4" ? "8:1" : "0:1";
            test::writeFile(u"proc/7/mountinfo"_s, root + "3 1 " + device + " / " + m_root +
                                                       "top/a rw - " + type + " s rw\n");
            // It is the process's own table that counts.
            const QByteArray other = type == "nfs4" ? "ext4" : "nfs";
            test::writeFile(u"proc/self/mountinfo"_s,
                            root + "2 1 8:1 / " + m_root + "top rw - " + other + " s rw\n");
            const auto found = lookAtMadeUp();
            QCOMPARE(has(found, opened), type != "nfs4");
            QCOMPARE(found->hasBelow(m_root + "top"), type == "nfs4");
            QCOMPARE(has(found, named), type == "ext4");
            QVERIFY(found->hasBelow('/' + named));
        }
    }

    void anIncompleteLookIsNone()
    {
        QVERIFY(!FilesInUse::look("none"));
        QVERIFY(!FilesInUse::look("top")); // without a process
        const int next = test::nextDescriptor();
        for (int spare = 0; spare <= 3; ++spare) {
            const test::FewDescriptors few(next + spare);
            QCOMPARE(FilesInUse::look().error(), spare == 3 ? 0 : EMFILE);
        }
    }

private:
    std::unique_ptr<QTemporaryDir> m_directory;
    QByteArray m_root; ///< Its path, with a slash; the current directory.
};

QTEST_GUILESS_MAIN(TestMovableEntry)
#include "tst_movable_entry.moc"
