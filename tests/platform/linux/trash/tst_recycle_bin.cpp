// Tests the recycle bin by what other programs find and restore there. Runs by own_tmp.sh only.
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/trash_mover.h"
#include "platform/linux/trash/tree_copy.h"
#include "platform/linux/trash/tree_removal.h"
#include "platform/recycle_bin.h"
#include "support/file_tree.h"
#include "support/refusals.h"
#include "support/system.h"

#include <QRandomGenerator>

#include <sys/syscall.h>

using namespace korvane;
using namespace linux_platform;
using namespace Qt::StringLiterals;
using platform::moveToRecycleBin;
using test::Child;
using test::shell;
using test::writeFile;

namespace {

const QString around = qEnvironmentVariable("KORVANE_OWN_TMP");
const QString home = qEnvironmentVariable("HOME");
const QString volume = qEnvironmentVariable("KORVANE_VOLUME");
const QString volumeTrash = volume + u"/.Trash-%1"_s.arg(::geteuid());
const QString homeTrash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash"_L1;

/// What the entry at $0 is and all in it, but for what is lost where it is restored as a copy.
constexpr auto describeCopy = R"(
find "$0" -printf '\n%P %M %l' ! -type l -printf ' %T@' ! -type d -printf ' %s' | sort
tar -cP -C "${0%/*}" --sort=name --transform='s,^[^/]*,x,S' --mtime=@0 --atime-preserve=system \
    --acls --xattrs --format=posix --pax-option='delete=?time,exthdr.name=x' --hard-dereference \
    "${0##*/}" | md5sum)";

/// What else is to be found of it in the trash.
constexpr auto describeRest = R"(
find "$0" -printf '\n%P %T@' ! -type d -printf ' %n' -type f -printf ' %A@ %S;' | sort |
    sed -E 's/ (0[.]|[^ ]*e-)[^ ]*;$/ holes/; s/ [^ ]*;$//'
find "$0" -type f -links +1 -printf '%i %P\n' | sort | sed -E 's/^[0-9]+//')";

QStringList describe(const QString& path)
{
    // First the times of access, though they are to be preserved.
    const QString rest = shell(describeRest, {path});
    return {shell(describeCopy, {path}), rest};
}

/// Makes a directory at $0 with all that is hard to move, and times of its own; and the neighbours
/// of it that are moved too. The list of rights, which lets user 0 read, holds: version 2; owner,
/// user 0, group, mask, others.
constexpr auto makeAll = R"(
exec 2>&1; set -e; umask 022; mkdir -p "$0/deep/er" "$0/closed"; cd "$0"
odd=$(printf 'a %%41 b\nc 中文') long=$(printf '长%.0s' $(seq 85))
printf odd >"$odd"; printf x >'closed/in it'; head -c 70000 /dev/urandom >'read only'
printf long >"deep/er/$long"; truncate -s 50000000 sparse
printf middle | dd of=sparse bs=1 seek=20000000 conv=notrunc status=none
ln "$odd" 'deep/second name'; ln -s '../read only' deep/link; ln -s 'nowhere/at all' dangling
chmod 400 'read only'; chmod 0 closed; chmod 555 deep/er; chmod 2750 .
/usr/bin/python3 -c "from os import setxattr; import sys
setxattr('read only', 'user.origin', b'a\0b')
rights = '02000000' '01000600ffffffff' '0200040000000000' '04000400ffffffff'
rights += '10000400ffffffff' '20000000ffffffff'
setxattr(sys.argv[1], 'system.posix_acl_access', bytes.fromhex(rights)) " "$odd"
cp deep/er/* ..
set -- sparse dangling 'read only' deep/er deep closed .
touch -hmd @1234567890.123456789 "$@"; touch -had @1234567881.000000007 "$@"
cd ..; ln -s nowhere link; echo feed >'a
b')";

/// Everything in a trash is whole: no entry without its info file, nor the other way round, and
/// nothing on the way.
void checkTrash(const QString& trash)
{
    const QString faults = shell(R"(exec 2>&-; cd "$0" || exit
        names() { find "$1" -mindepth 1 -maxdepth 1 -printf "%f$2\n" | sort; }
        [ "$(names files .trashinfo) " = "$(names info) " ] || ls -A files info
        ls -A korvane-staging)",
                                 {trash});
    QCOMPARE(faults, QString());
}

/// Whether it is a success, and the message.
QString moved(const QStringList& paths)
{
    const OpResult result = moveToRecycleBin(paths);
    return (result.ok ? u"yes: "_s : u"no: "_s) + result.message;
}

/// Of one entry that stays.
QString kept(const QString& why)
{
    return u"no: 没有内容被移到回收站, 跳过 1 项 (%1 1)"_s.arg(why);
}

void clear(const QString& path)
{
    QCOMPARE(shell("chmod -fR u+rwx \"$0\"; rm -rf \"$0\" 2>&1", {path}), QString());
}

/// Where entries lie, and the trash they come to.
const test::Cases<QString, QString> places{
    {"on the disk of the home", around + "/work"_L1, homeTrash},
    {"in memory", u"/tmp/work"_s, homeTrash},
    {"on another volume", volume + "/work"_L1, volumeTrash},
    {"at the top of another volume", volume, homeTrash},
};

const QString isMountPoint = u"含挂载点"_s;
const QString isInUse = u"正在使用"_s;
/// Where the entry lies, and why it stays.
const test::Cases<QString, QString> mountedElsewhere{
    {"in memory", u"/tmp/mounted"_s, isMountPoint},
    {"on the disk", around + "/mounted"_L1, isMountPoint},
    {"a source", u"/tmp/mounted/in"_s, isInUse},
};

// clang-format off
/// What is refused: a system call whose argument of that index has the value, and the error.
const test::Cases<quint32, quint32, int, quint32, QString> refusals{
    // Where the file system has none, a rename still loses nothing that is written to it.
    {"no leases", SYS_fcntl, 1, F_SETLEASE, EINVAL,
     u"yes: 已移到回收站 1 项, 跳过 1 项 (无法确认未被使用 1)"_s},
    {"leases", SYS_fcntl, 1, F_SETLEASE, EACCES, u"no: 没有内容被移到回收站, 跳过 2 项 (无权限 2)"_s},
    {"failed leases", SYS_fcntl, 1, F_SETLEASE, ENOLCK,
     u"no: 没有内容被移到回收站, 跳过 2 项 (无法读取 2)"_s},
    {"removals", SYS_unlinkat, 2, 0, EACCES, u"yes: 已移到回收站 1 项, 跳过 1 项 (无权限 1)"_s},
};
// clang-format on

const QString isOthers = u"路径可被他人更改"_s;
/// What is done to the way, the last of its directories, and why the entry there stays, if so.
const test::Cases<QString, QString> ways{
    {"chown 65534 way", u"own"_s, isOthers},
    {"chmod 775 way", u"own"_s, isOthers},
    {"chmod 777 way/own", u"own"_s, isOthers},
    {"chmod 1777 way; chown 65534 way", u"own"_s, isOthers},
    {"chmod 1777 way", u"own"_s, {}},
    {"ln -s ../precious/../precious way/link", u"link"_s, {}},
    {"ln -s $PWD/precious way/link; chown 65534 way", u"link"_s, isOthers},
    {"ln -s $PWD/precious way/link; chmod 1777 way", u"link"_s, isOthers},
    {"ln -s $PWD/precious way/link; chown -h 65534 way/link", u"link"_s, isOthers},
    {"ln -s link way/link", u"link"_s, u"无法读取"_s},
};

/// Where that lies which is moved: as copies, or by renames.
const test::Cases<QString> kills{{"in memory", u"/tmp/killed"_s},
                                 {"on disk", around + "/killed"_L1}};

} // namespace

class TestRecycleBin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        const QString own = QFile::symLinkTarget(u"/proc/self/ns/mnt"_s);
        if (around.isEmpty() || own == QFile::symLinkTarget(u"/proc/1/ns/mnt"_s))
            qFatal("this moves files out of /tmp: run it by own_tmp.sh");
    }

    void init()
    {
        QVERIFY(QDir().mkpath(u"/tmp/copies"_s) && QDir::setCurrent(u"/tmp/copies"_s));
        clear(homeTrash);
        qputenv("XDG_DATA_HOME", QFile::encodeName(home + "/data"_L1));
    }

    void cleanup() { QCOMPARE(removeTree(AT_FDCWD, "/tmp/copies"), 0); }

    void everythingComesBack_data() { test::addRows(places); }
    void everythingComesBack()
    {
        const auto& [name, directory, trash] = test::currentRow(places);
        if (volume.isEmpty() && QByteArray(name).contains("volume"))
            QSKIP("no other volume here");
        const QStringList names{u"tree 100% 树"_s, u"长"_s.repeated(85), u"a\nb"_s, u"link"_s};
        QCOMPARE(shell(makeAll, {directory + u'/' + names[0]}), QString());
        QMap<QString, QStringList> before;
        for (const QString& each : names)
            before[directory + u'/' + each] = describe(directory + u'/' + each);
        QCOMPARE(moved(before.keys()), u"yes: 已移到回收站 4 项"_s);
        checkTrash(trash);

        for (const auto& [path, described] : before.asKeyValueRange()) {
            QVERIFY(!QFileInfo(path).exists() && !QFileInfo(path).isSymLink());
            // The name in the trash leaves room for that of the info file.
            QCOMPARE(describe(trash + "/files/"_L1 + path.section(u'/', -1).left(81)), described);
            const QString said = shell("echo 0 | trash-restore \"$0\" 2>&1", {path});
            QVERIFY2(shell(describeCopy, {path}) == described[0], qPrintable(said));
            clear(path);
        }
    }

    void sameNameTwice()
    {
        for (const char* content : {"first", "second"}) {
            writeFile(u"/tmp/twice"_s, content);
            QVERIFY(moveToRecycleBin({u"/tmp/twice"_s}).ok);
        }
        QCOMPARE(shell("cd $0; grep '' *", {homeTrash + "/files"_L1}),
                 u"twice:first\ntwice.2:second\n"_s);
        checkTrash(homeTrash);
    }

    void whatCannotBeMovedStays()
    {
        test::makeTree(u"/tmp"_s, u"free=1|open=1|outer/inner/file=1"_s);
        test::makeTree(homeTrash, u"files/old/"_s);
        QFile open(u"/tmp/open"_s);
        QVERIFY(open.open(QIODevice::ReadOnly));
        QCOMPARE(moved({u"/tmp/open"_s, u"/tmp/outer/"_s, u"/tmp/outer/inner"_s, u"/tmp/gone"_s,
                        u"/tmp/no/where"_s, u"/tmp/free"_s, QString(), u"tmp/free"_s, u"/tmp/."_s,
                        home, homeTrash + "/files/old"_L1}),
                 u"yes: 已移到回收站 2 项, 跳过 6 项 (正在使用 1, 路径无效 3, 系统保留 2)"_s);
        QVERIFY(open.exists() && QFile::exists(homeTrash + "/files/old"_L1));
        QCOMPARE(moved({u"/tmp/open"_s}), kept(isInUse));
        QCOMPARE(moved({u"/tmp/gone"_s}), u"yes: 没有需要移动的内容 (可能已被删除)"_s);
        open.remove();
    }

    void aTemporaryDirectoryAroundTheHome()
    {
        test::makeTree(around, u"home/document=1|home/.cache/idle=1|file=1|linked>"_s + home);
        const QString inHome = home + "/document"_L1;
        for (const auto& [directory, path] :
             {std::pair(home, inHome), std::pair(around + "/linked/."_L1, inHome),
              std::pair(home, around + "/linked/document"_L1),
              std::pair(around, around + "/file"_L1), std::pair(u"/"_s, u"/korvane-none"_s)}) {
            qputenv("TMPDIR", QFile::encodeName(directory));
            QCOMPARE(moved({path}), kept(u"临时目录为用户目录或其上级"_s));
        }
        QVERIFY(QFile::exists(inHome));
        qputenv("TMPDIR", QFile::encodeName(home));
        QVERIFY(moveToRecycleBin({home + "/.cache/idle"_L1}).ok);
        qunsetenv("TMPDIR");
        QVERIFY(moveToRecycleBin({inHome}).ok);
    }

    void whatAnotherNamespaceMountedStays_data() { test::addRows(mountedElsewhere); }
    void whatAnotherNamespaceMountedStays()
    {
        const auto& [name, directory, reason] = test::currentRow(mountedElsewhere);
        const QString entry = directory + "/entry"_L1;
        const QString place = entry + "/mnt"_L1;
        test::makeTree(entry, u"mnt/|file=1"_s);
        std::vector<TrashCandidate> judged(1);
        judged[0].source = SourceDirectory::open(QFile::encodeName(directory)).value();
        judged[0].name = "entry";

        const QByteArray command = reason == isInUse ? "mount --bind $0 /mnt; touch /mnt/data"
                                                     : "mount -t tmpfs none $0; touch $0/data";
        const Child child([run = test::runShell(command, place.toUtf8())] {
            test::makeMountsOwn() ? run() : ::_exit(1);
        });
        const QString data = u"/proc/%1/root%2/data"_s.arg(QString::number(child.pid()),
                                                           reason == isInUse ? u"/mnt"_s : place);
        QVERIFY(QFile::exists(data));
        QCOMPARE(moved({entry}), kept(reason));
        TrashMover().move(judged); // as if it had been mounted since
        QCOMPARE(judged[0].outcome, TrashCandidate::Outcome::Kept);
        QCOMPARE(judged[0].why, reason);
        QVERIFY(QFile::exists(data) && QFile::exists(entry + "/file"_L1));
        checkTrash(homeTrash);
        clear(directory);
    }

    void aTrashThatTakesNothing()
    {
        const QString small = around + "/small"_L1;
        const QString others = around + "/others"_L1;
        const bool hasOthers =
            shell(R"(mkdir $0/small $0/others; head -c 8000000 /dev/zero >/tmp/large
            mount -t tmpfs -o size=70m none $0/small; chown 65534 $0/others 2>&1)",
                  {around})
                .isEmpty();
        const QStringList before = describe(u"/tmp/large"_s);
        for (const auto& [data, why] :
             {std::pair(small, u"空间不足"_s), std::pair(u"/dev/null"_s, u"回收站不可用"_s),
              std::pair(hasOthers ? others + "/data"_L1 : u"/dev/null"_s, u"回收站不可用"_s)}) {
            qputenv("XDG_DATA_HOME", QFile::encodeName(data));
            QCOMPARE(moved({u"/tmp/large"_s}), kept(why));
            QCOMPARE(describe(u"/tmp/large"_s), before);
        }
        checkTrash(small + "/Trash"_L1);
        QCOMPARE(shell("umount $0 && rm /tmp/large 2>&1", {small}), QString());
    }

    void aTrashThatOthersMadeIsNotUsed()
    {
        if (volume.isEmpty())
            QSKIP("no other volume here");
        const QString file = volume + "/work/file"_L1;
        clear(volumeTrash);
        QVERIFY(QFile::link(u"/tmp"_s, volumeTrash));
        writeFile(file, "x");
        QVERIFY(moveToRecycleBin({file}).ok);
        QVERIFY(QFile::exists(homeTrash + "/files/file"_L1) && !QFile::exists(u"/tmp/files"_s));
        QFile::remove(volumeTrash);
    }

    void aFileThatChangesMeanwhileStays()
    {
        const QString changing = u"/tmp/changing"_s;
        writeFile(changing, QByteArray(100'000'000, 'c'));
        const Child toucher([] {
            ::close(STDOUT_FILENO);
            for (;;)
                ::utimensat(AT_FDCWD, "/tmp/changing", nullptr, 0);
        });
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/changing", AT_FDCWD, "copy"), EBUSY);
        QCOMPARE(moved({changing}), kept(isInUse));
        QCOMPARE(QFileInfo(changing).size(), 100'000'000);
        checkTrash(homeTrash);
        QFile::remove(changing);
    }

    void onlyWhatWasCopiedIsRemoved()
    {
        const QString source = u"/tmp/source"_s;
        test::makeTree(source, u"same=1|grown=1|touched=1|open=1|leased=1|below/same=1|link>one"_s);
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/source", AT_FDCWD, "copy"), 0);
        shell("cd $0; echo >>grown; echo >below/new; touch -d @1 touched; ln -sfn two link",
              {source});
        const UniqueFd open(::open("/tmp/source/open", O_RDONLY | O_CLOEXEC));
        const UniqueFd leased(::open("/tmp/source/leased", O_RDONLY | O_CLOEXEC));
        QCOMPARE(::fcntl(leased.get(), F_SETSIG, SIGURG), 0);
        QCOMPARE(::fcntl(leased.get(), F_SETLEASE, F_WRLCK), 0);

        const RemovedOriginal removed = removeOriginal(AT_FDCWD, "/tmp/source", AT_FDCWD, "copy");
        QVERIFY(!removed.isGone && !removed.isUntouched);
        QCOMPARE(removed.error, EBUSY);
        QCOMPARE(shell("cd $0; find * ! -type d | sort | xargs", {source}),
                 u"below/new grown leased link open touched\n"_s);

        QCOMPARE(copyTree(AT_FDCWD, "/tmp/source/grown", AT_FDCWD, "grown"), 0);
        {
            const test::FewDescriptors none(0);
            QCOMPARE(removeOriginal(AT_FDCWD, "/tmp/source/grown", AT_FDCWD, "grown").error,
                     EMFILE);
        }
        QVERIFY(QFile::exists(source + "/grown"_L1));
        clear(source);
    }

    void whatIsRefusedLosesNothing_data() { test::addRows(refusals); }
    void whatIsRefusedLosesNothing()
    {
        const auto& [name, call, index, value, error, answer] = test::currentRow(refusals);
        const QString renamed = around + "/renamed"_L1;
        const QString copied = u"/tmp/copied/below/file"_s;
        for (const QString& file : {copied, renamed})
            writeFile(file, "x");
        const auto move = [&renamed, number = call, at = index, of = value, why = error] {
            return test::refuseCall(number, of, why, at) ? moved({u"/tmp/copied"_s, renamed})
                                                         : QString();
        };
        QCOMPARE(test::played(move), answer);
        QVERIFY(QFile::exists(copied));
        QCOMPARE(QFile::exists(renamed), answer.startsWith(u"no"));
        if (call == SYS_unlinkat)
            QVERIFY(moveToRecycleBin({}).ok); // clears up behind it
        checkTrash(homeTrash);
        QFile::remove(renamed);
        clear(u"/tmp/copied"_s);
    }

    void rootFollowsNobodysLinks_data() { test::addRows(ways); }
    void rootFollowsNobodysLinks()
    {
        const auto& [script, path, why] = test::currentRow(ways);
        const QString made = shell(R"(exec 2>&1; cd $0; rm -rf precious way
            mkdir -p precious/theirs way/own; chown 65534 precious/theirs
            touch precious/entry way/own/entry; eval "$1")",
                                   {around, QLatin1StringView(script)});
        if (made.contains("chown:"_L1))
            QSKIP("one user alone here");
        QCOMPARE(made, QString());
        writeFile(u"/tmp/free"_s, "x");
        const QString entry = around + "/way/"_L1 + path + "/entry"_L1;
        QCOMPARE(moved({entry, u"/tmp/free"_s}),
                 why.isEmpty() ? u"yes: 已移到回收站 2 项"_s
                               : u"yes: 已移到回收站 1 项, 跳过 1 项 (%1 1)"_s.arg(why));
        QCOMPARE(shell("cd $0; find way/own/entry precious/entry 2>&-", {around}).count(u'\n'),
                 why.isEmpty() ? 1 : 2);
    }

    void filesOfTheSameNumberAreNotOne()
    {
        // The layers number their files each by themselves, as subvolumes do.
        const QString root = u"/tmp/layers"_s;
        const QString made = shell(R"(exec 2>&1; mkdir -p $0/a $0/b $0/all; cd $0; for i in a b; do
            mount -t tmpfs none $i; mkdir $i/$i; echo $i >$i/$i/one; ln $i/$i/one $i/$i/two
            touch -d @1.000000002 $i/$i/one; done
            mount -t overlay -o xino=off,lowerdir=/tmp/layers/a:/tmp/layers/b none all)",
                                   {root});
        if (!made.isEmpty())
            QSKIP("no overlay here");
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/layers/all", AT_FDCWD, "copy"), 0);
        QCOMPARE(shell(describeCopy, {u"/tmp/copies/copy"_s}),
                 shell(describeCopy, {root + "/all"_L1}));
        QCOMPARE(shell("cd $0; umount all a b 2>&1", {root}), QString());
        clear(root);
    }

    void aKilledMoveLosesNothing_data() { test::addRows(kills); }
    void aKilledMoveLosesNothing()
    {
        const QString& source = std::get<1>(test::currentRow(kills));
        const QStringList where{source, around + "/like them"_L1, homeTrash};
        QStringList paths;
        for (int i = 1; i <= 40; ++i)
            paths << source + u"/entry %1"_s.arg(i);
        const auto count = [](const QString& directory) {
            return QDir(directory).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size();
        };
        // Their size tells how far it is: announced, arrived, removed.
        const QStringList watched{homeTrash + "/info"_L1, homeTrash + "/files"_L1, source};
        for (const QString& directory : watched + watched + watched) {
            clear(homeTrash);
            const QString made = shell(R"(exec 2>&1; mkdir -p "$0" "$1/sub"
                for i in $(seq 9); do head -c 5000 /dev/zero | tr '\0' $i >"$1/sub/$i"; done
                for i in $(seq 40); do cp -r "$1" "$0/entry $i"; done)",
                                       where);
            QCOMPARE(made, QString());
            const qsizetype before = count(directory);
            const int steps = QRandomGenerator::global()->bounded(1, 20);
            Child mover([&paths] {
                ::close(STDOUT_FILENO);
                (void)moveToRecycleBin(paths);
                ::_exit(0);
            });
            while (std::abs(count(directory) - before) < steps && mover.isRunning())
                continue;
            mover.reap();
            QVERIFY(moveToRecycleBin({}).ok); // clears up behind it
            checkTrash(homeTrash);
            const QString lost = shell(R"(exec 2>&1; for i in $(seq 40); do
                entry="$2/files/entry $i"; [ -e "$entry" ] || entry="$0/entry $i"
                diff -r "$1" "$entry"; done)",
                                       where);
            QCOMPARE(lost, QString());
            clear(source);
        }
    }
};

QTEST_GUILESS_MAIN(TestRecycleBin)
#include "tst_recycle_bin.moc"
