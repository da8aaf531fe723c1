// Tests the recycle bin by what other programs find and restore there. Runs by own_tmp.sh only.
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/trash_mover.h"
#include "platform/linux/trash/tree_copy.h"
#include "platform/linux/trash/tree_removal.h"
#include "platform/recycle_bin.h"
#include "support/refusals.h"
#include "support/system.h"

#include <QDirIterator>
#include <QRandomGenerator>

#include <sys/syscall.h>
#include <sys/xattr.h>

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

/// Makes a directory at $0 with all that is hard to move.
constexpr auto makeTree = R"(
exec 2>&1; set -e; umask 022; mkdir -p "$0/deep/er" "$0/closed"; cd "$0"
odd=$(printf 'a %%41 b\nc 中文') long=$(printf '长%.0s' $(seq 85))
printf odd >"$odd"; printf x >'closed/in it'; head -c 70000 /dev/urandom >'read only'
printf long >"deep/er/$long"; truncate -s 50000000 sparse
printf middle | dd of=sparse bs=1 seek=20000000 conv=notrunc status=none
ln "$odd" 'deep/second name'; ln -s '../read only' deep/link; ln -s 'nowhere/at all' dangling
chmod 400 'read only'; chmod 0 closed; chmod 555 deep/er; chmod 2750 .)";

/// Gives it times of its own, and makes the neighbours of it that are moved too.
constexpr auto finishTree = R"(
exec 2>&1; set -e; cd "$0"; cp deep/er/* ..
set -- sparse dangling 'read only' deep/er deep closed .
touch -hmd @1234567890.123456789 "$@"; touch -had @1234567881.000000007 "$@"
cd ..; ln -s nowhere link; echo feed >'a
b')";

void setAttributes(const QString& tree)
{
    const QByteArray path = QFile::encodeName(tree + "/read only"_L1);
    QCOMPARE(::setxattr(path.constData(), "user.origin", "a\0b", 3, 0), 0);
    // The list of rights that lets user 0 read: version 2; owner, user 0, group, mask, others.
    const QByteArray rights = QByteArray::fromHex("0200000001000600ffffffff0200040000000000"
                                                  "04000400ffffffff10000400ffffffff"
                                                  "20000000ffffffff");
    const QByteArray odd = QFile::encodeName(tree + u"/a %41 b\nc 中文"_s);
    QCOMPARE(::setxattr(odd.constData(), "system.posix_acl_access", rights.constData(),
                        static_cast<size_t>(rights.size()), 0),
             0);
}

/// The files and links below a directory, with what is in them.
QMap<QString, QByteArray> filesBelow(const QString& directory)
{
    QMap<QString, QByteArray> files;
    QDirIterator all(directory, QDir::Files | QDir::System, QDirIterator::Subdirectories);
    while (all.hasNext()) {
        const QString path = all.next();
        files[path.sliced(directory.size())] = test::readFile(path);
    }
    return files;
}

/// Everything in a trash is whole: no entry without its info file, nor the other way round, and
/// nothing on the way.
void checkTrash(const QString& trash)
{
    const auto namesIn = [&trash](const QString& directory) {
        return QDir(trash + directory)
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    };
    QStringList files = namesIn(u"/files"_s);
    for (QString& file : files)
        file += ".trashinfo"_L1;
    QStringList infos = namesIn(u"/info"_s);
    files.sort();
    infos.sort();
    QCOMPARE(files, infos);
    QCOMPARE(namesIn(u"/korvane-staging"_s), QStringList());
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
/// Where the entry lies, why it stays, and whether the mount came after it was judged.
const test::Cases<QString, QString, bool> mountedElsewhere{
    {"in memory, early", u"/tmp/mounted"_s, isMountPoint, false},
    {"on the disk, early", around + "/mounted"_L1, isMountPoint, false},
    {"a source, early", u"/tmp/mounted/in"_s, isInUse, false},
    {"in memory, late", u"/tmp/mounted"_s, isMountPoint, true},
    {"on the disk, late", around + "/mounted"_L1, isMountPoint, true},
    {"a source, late", u"/tmp/mounted/in"_s, isInUse, true},
};

const test::Cases<int, QString> noLeases{
    // Where the file system has none, a rename still loses nothing that is written to it.
    {"has none", EINVAL, u"已移到回收站 1 项, 跳过 1 项 (无法确认未被使用 1)"_s},
    {"refused", EACCES, u"没有内容被移到回收站, 跳过 2 项 (无权限 2)"_s},
    {"failed", ENOLCK, u"没有内容被移到回收站, 跳过 2 项 (无法读取 2)"_s},
};

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

const QString killedInMemory = u"/tmp/killed"_s;
const QString killedOnDisk = around + "/killed"_L1;
/// What is moved, and the directory whose size tells how far that is.
const test::Cases<QString, QString> kills{
    {"copies: announced", killedInMemory, homeTrash + "/info"_L1},
    {"copies: arrived", killedInMemory, homeTrash + "/files"_L1},
    {"copies: removed", killedInMemory, killedInMemory},
    {"renames: announced", killedOnDisk, homeTrash + "/info"_L1},
    {"renames: arrived", killedOnDisk, homeTrash + "/files"_L1},
    {"renames: removed", killedOnDisk, killedOnDisk},
};

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
        clear(homeTrash);
        qputenv("XDG_DATA_HOME", QFile::encodeName(home + "/data"_L1));
    }

    void everythingComesBack_data() { test::addRows(places); }
    void everythingComesBack()
    {
        const auto& [name, directory, trash] = test::currentRow(places);
        if (volume.isEmpty() && QByteArray(name).contains("volume"))
            QSKIP("no other volume here");
        // The name in the trash leaves room for that of the info file.
        const QList<std::pair<QString, QString>> entries{
            {u"tree 100% 树"_s, u"tree 100% 树"_s},
            {u"长"_s.repeated(85), u"长"_s.repeated(81)},
            {u"a\nb"_s, u"a\nb"_s},
            {u"link"_s, u"link"_s}};
        const QString tree = directory + u'/' + entries[0].first;
        QCOMPARE(shell(makeTree, {tree}), QString());
        setAttributes(tree);
        QCOMPARE(shell(finishTree, {tree}), QString());
        QStringList paths;
        QList<QStringList> before;
        for (const auto& [entry, trashed] : entries) {
            paths << directory + u'/' + entry;
            before << describe(paths.last());
        }

        const OpResult result = moveToRecycleBin(paths);
        QCOMPARE(result.message, u"已移到回收站 4 项"_s);
        QVERIFY(result.ok);
        for (const QString& path : paths)
            QVERIFY(!QFileInfo(path).exists() && !QFileInfo(path).isSymLink());
        checkTrash(trash);
        QCOMPARE(QDir(trash + "/info"_L1).entryList(QDir::Files).size(), 4);
        QVERIFY(shell("trash-list").contains(u' ' + paths[0] + u'\n'));

        for (qsizetype i = 0; i < paths.size(); ++i) {
            QCOMPARE(describe(trash + "/files/"_L1 + entries[i].second), before[i]);
            const QString said = shell("echo 0 | trash-restore \"$0\" 2>&1", {paths[i]});
            QVERIFY2(shell(describeCopy, {paths[i]}) == before[i][0], qPrintable(said));
            clear(paths[i]);
        }
    }

    void sameNameTwice()
    {
        for (const char* content : {"first", "second"}) {
            writeFile(u"/tmp/twice"_s, content);
            QVERIFY(moveToRecycleBin({u"/tmp/twice"_s}).ok);
        }
        const QMap<QString, QByteArray> both{{u"/twice"_s, "first"}, {u"/twice.2"_s, "second"}};
        QCOMPARE(filesBelow(homeTrash + "/files"_L1), both);
        checkTrash(homeTrash);
    }

    void whatCannotBeMovedStays()
    {
        for (const auto& file : {u"/tmp/free"_s, u"/tmp/open"_s, u"/tmp/outer/inner/file"_s})
            writeFile(file, "x");
        QVERIFY(QDir().mkpath(homeTrash + "/files/old"_L1));
        QFile open(u"/tmp/open"_s);
        QVERIFY(open.open(QIODevice::ReadOnly));
        const OpResult result =
            moveToRecycleBin({u"/tmp/open"_s, u"/tmp/outer/"_s, u"/tmp/outer/inner"_s,
                              u"/tmp/gone"_s, u"/tmp/no/where"_s, u"/tmp/free"_s, QString(),
                              u"tmp/free"_s, u"/tmp/."_s, home, homeTrash + "/files/old"_L1});
        QVERIFY(result.ok);
        QCOMPARE(result.message,
                 u"已移到回收站 2 项, 跳过 6 项 (正在使用 1, 路径无效 3, 系统保留 2)"_s);
        QVERIFY(open.exists() && QFile::exists(homeTrash + "/files/old"_L1));

        const OpResult none = moveToRecycleBin({u"/tmp/open"_s});
        QVERIFY(!none.ok);
        QVERIFY(none.message.endsWith(u"跳过 1 项 (正在使用 1)"_s));
        QVERIFY(moveToRecycleBin({u"/tmp/gone"_s}).ok);
        open.remove();
    }

    void aTemporaryDirectoryAroundTheHome()
    {
        const QString inHome = home + "/document"_L1;
        const QString idle = home + "/.cache/idle"_L1;
        for (const QString& file : {inHome, around + "/file"_L1, idle})
            writeFile(file, "x");
        QVERIFY(QFile::link(home, around + "/linked"_L1));
        for (const auto& [directory, path] :
             {std::pair(home, inHome), std::pair(around + "/linked/."_L1, inHome),
              std::pair(home, around + "/linked/document"_L1),
              std::pair(around, around + "/file"_L1), std::pair(u"/"_s, u"/korvane-none"_s)}) {
            qputenv("TMPDIR", QFile::encodeName(directory));
            const QString message = moveToRecycleBin({path}).message;
            QVERIFY2(message.endsWith(u"跳过 1 项 (临时目录为用户目录或其上级 1)"_s),
                     qPrintable(message));
        }
        QVERIFY(QFile::exists(inHome));
        qputenv("TMPDIR", QFile::encodeName(home));
        QVERIFY(moveToRecycleBin({idle}).ok);
        qunsetenv("TMPDIR");
        QVERIFY(moveToRecycleBin({inHome}).ok);
    }

    void whatAnotherNamespaceMountedStays_data() { test::addRows(mountedElsewhere); }
    void whatAnotherNamespaceMountedStays()
    {
        const auto& [name, directory, reason, isLate] = test::currentRow(mountedElsewhere);
        const QString entry = directory + "/entry"_L1;
        const QString place = entry + "/mnt"_L1;
        QVERIFY(QDir().mkpath(place));
        writeFile(entry + "/file"_L1, "x");
        std::vector<TrashCandidate> judged(1);
        judged[0].source = SourceDirectory::open(QFile::encodeName(directory)).value();
        judged[0].name = "entry";

        const QByteArray command = reason == isInUse ? "mount --bind $0 /mnt; touch /mnt/data"
                                                     : "mount -t tmpfs none $0; touch $0/data";
        const Child child([command, place = place.toUtf8()] {
            if (!test::makeMountsOwn())
                ::_exit(1);
            const QByteArray script = command + "; exec >&-; kill -STOP $$";
            ::execl("/bin/sh", "sh", "-ec", script.constData(), place.constData(), nullptr);
        });
        const QString data = u"/proc/%1/root%2/data"_s.arg(QString::number(child.pid()),
                                                           reason == isInUse ? u"/mnt"_s : place);
        QVERIFY(QFile::exists(data));
        if (isLate) {
            TrashMover().move(judged);
            QCOMPARE(judged[0].outcome, TrashCandidate::Outcome::Kept);
            QCOMPARE(judged[0].why, reason);
        } else {
            const QString message = moveToRecycleBin({entry}).message;
            QVERIFY2(message.endsWith(u"跳过 1 项 (%1 1)"_s.arg(reason)), qPrintable(message));
        }
        QVERIFY(QFile::exists(data) && QFile::exists(entry + "/file"_L1));
        checkTrash(homeTrash);
        clear(directory);
    }

    void aTrashThatTakesNothing()
    {
        const QString small = around + "/small"_L1;
        const QString others = around + "/others"_L1;
        writeFile(u"/tmp/large"_s, QByteArray(8'000'000, 'l'));
        const QStringList before = describe(u"/tmp/large"_s);
        QVERIFY(QDir().mkpath(others));
        const bool hasOthers = shell("chown 65534 \"$0\" 2>&1", {others}).isEmpty();
        QCOMPARE(shell("mkdir $0 && mount -t tmpfs -o size=70m none $0 2>&1", {small}), QString());
        for (const auto& [data, why] :
             {std::pair(small, u"空间不足 1"_s), std::pair(u"/dev/null"_s, u"回收站不可用 1"_s),
              std::pair(hasOthers ? others + "/data"_L1 : u"/dev/null"_s, u"回收站不可用 1"_s)}) {
            qputenv("XDG_DATA_HOME", QFile::encodeName(data));
            const OpResult result = moveToRecycleBin({u"/tmp/large"_s});
            QVERIFY(!result.ok);
            QVERIFY2(result.message.contains(why), qPrintable(result.message));
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
        const Child toucher([] {},
                            [] {
                                for (;;)
                                    ::utimensat(AT_FDCWD, "/tmp/changing", nullptr, 0);
                            });
        QVERIFY(QDir().mkpath(u"/tmp/copies"_s));
        const UniqueFd copies(::open("/tmp/copies", O_RDONLY | O_CLOEXEC));
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/changing", copies.get(), "copy"), EBUSY);
        QCOMPARE(removeTree(AT_FDCWD, "/tmp/copies"), 0);
        const OpResult result = moveToRecycleBin({changing});
        QVERIFY(!result.ok);
        QVERIFY2(result.message.contains(u"正在使用 1"_s), qPrintable(result.message));
        QCOMPARE(QFileInfo(changing).size(), 100'000'000);
        checkTrash(homeTrash);
        QFile::remove(changing);
    }

    void onlyWhatWasCopiedIsRemoved()
    {
        const QString source = u"/tmp/source"_s;
        QVERIFY(QDir().mkpath(u"/tmp/copies"_s));
        for (const char* name : {"/same", "/grown", "/touched", "/open", "/leased", "/below/same"})
            writeFile(source + QLatin1StringView(name), "x");
        QVERIFY(QFile::link(u"one"_s, source + "/link"_L1));
        const UniqueFd copies(::open("/tmp/copies", O_RDONLY | O_CLOEXEC));
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/source", copies.get(), "copy"), 0);
        shell("cd $0; echo >>grown; echo >below/new; touch -d @1 touched; ln -sfn two link",
              {source});
        const UniqueFd open(::open("/tmp/source/open", O_RDONLY | O_CLOEXEC));
        const UniqueFd leased(::open("/tmp/source/leased", O_RDONLY | O_CLOEXEC));
        QCOMPARE(::fcntl(leased.get(), F_SETSIG, SIGURG), 0);
        QCOMPARE(::fcntl(leased.get(), F_SETLEASE, F_WRLCK), 0);

        const RemovedOriginal removed =
            removeOriginal(AT_FDCWD, "/tmp/source", copies.get(), "copy");
        QVERIFY(!removed.isGone && !removed.isUntouched);
        QCOMPARE(removed.error, EBUSY);
        QCOMPARE(filesBelow(source).keys().join(u' '),
                 u"/below/new /grown /leased /link /open /touched"_s);

        QCOMPARE(copyTree(AT_FDCWD, "/tmp/source/grown", copies.get(), "grown"), 0);
        const auto removeWithoutDescriptors = [&copies] {
            const test::FewDescriptors none(0);
            return removeOriginal(AT_FDCWD, "/tmp/source/grown", copies.get(), "grown").error;
        };
        QCOMPARE(removeWithoutDescriptors(), EMFILE);
        QVERIFY(QFile::exists(source + "/grown"_L1));
        clear(source);
        QCOMPARE(removeTree(AT_FDCWD, "/tmp/copies"), 0);
    }

    void whatNoLeaseVouchesForStays_data() { test::addRows(noLeases); }
    void whatNoLeaseVouchesForStays()
    {
        const auto& [name, error, message] = test::currentRow(noLeases);
        const QString renamed = around + "/renamed"_L1;
        const QString copied = u"/tmp/copied/below/file"_s;
        for (const QString& file : {copied, renamed})
            writeFile(file, "x");
        const auto move = [&renamed, refusal = static_cast<quint32>(error)] {
            return test::refuseCall(SYS_fcntl, F_SETLEASE, refusal, 1)
                       ? moveToRecycleBin({u"/tmp/copied"_s, renamed}).message
                       : QString();
        };
        QCOMPARE(test::played(move), message);
        QVERIFY(QFile::exists(copied));
        QCOMPARE(QFile::exists(renamed), error != EINVAL);
        checkTrash(homeTrash);
        QFile::remove(renamed);
        clear(u"/tmp/copied"_s);
    }

    void rootFollowsNobodysLinks_data() { test::addRows(ways); }
    void rootFollowsNobodysLinks()
    {
        const auto& [script, path, why] = test::currentRow(ways);
        const QString made = shell("exec 2>&1; cd $0; rm -rf precious way; "
                                   "mkdir -p precious/theirs way/own; chown 65534 precious/theirs; "
                                   "touch precious/entry way/own/entry; " +
                                       QByteArray(script),
                                   {around});
        if (made.contains("chown:"_L1))
            QSKIP("one user alone here");
        QCOMPARE(made, QString());
        writeFile(u"/tmp/free"_s, "x");
        const QString entry = around + "/way/"_L1 + path + "/entry"_L1;
        QCOMPARE(moveToRecycleBin({entry, u"/tmp/free"_s}).message,
                 why.isEmpty() ? u"已移到回收站 2 项"_s
                               : u"已移到回收站 1 项, 跳过 1 项 (%1 1)"_s.arg(why));
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
        const UniqueFd copies(::open("/tmp/layers", O_RDONLY | O_CLOEXEC));
        QCOMPARE(copyTree(copies.get(), "all", copies.get(), "copy"), 0);
        QCOMPARE(shell(describeCopy, {root + "/copy"_L1}), shell(describeCopy, {root + "/all"_L1}));
        QCOMPARE(shell("cd $0; umount all a b 2>&1", {root}), QString());
        clear(root);
    }

    void aKilledMoveLosesNothing_data() { test::addRows(kills); }
    void aKilledMoveLosesNothing()
    {
        const auto& [name, source, watched] = test::currentRow(kills);
        constexpr int rounds = 3;
        constexpr int entries = 40;
        for (int round = 0; round < rounds; ++round) {
            clear(homeTrash);
            QList<QMap<QString, QByteArray>> before;
            s_paths.clear();
            for (int i = 0; i < entries; ++i) {
                s_paths << source + u"/entry %1"_s.arg(i);
                for (int j = 0; j < 10; ++j)
                    writeFile(s_paths.last() + u"/sub/%1"_s.arg(j),
                              QByteArray(5000, char('a' + j)));
                before << filesBelow(s_paths.last());
            }
            killMove(watched, QRandomGenerator::global()->bounded(1, entries / 2));
            // The next call clears up behind it.
            writeFile(u"/tmp/another"_s, "x");
            QVERIFY(moveToRecycleBin({u"/tmp/another"_s}).ok);
            checkTrash(homeTrash);
            for (int i = 0; i < entries; ++i) {
                const QString moved = homeTrash + u"/files/entry %1"_s.arg(i);
                QCOMPARE(filesBelow(QFileInfo::exists(moved) ? moved : s_paths[i]), before[i]);
            }
            clear(source);
        }
    }

private:
    /// Kills a process that moves s_paths once the number of entries in `watched` has changed by
    /// `steps`.
    static void killMove(const QString& watched, qsizetype steps)
    {
        const auto count = [&watched] {
            return QDir(watched).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size();
        };
        const qsizetype before = count();
        const Child mover([] {},
                          [] {
                              (void)moveToRecycleBin(s_paths);
                              ::_exit(0);
                          });
        while (std::abs(count() - before) < steps && mover.isRunning())
            continue;
    }

    inline static QStringList s_paths; ///< For the child.
};

QTEST_GUILESS_MAIN(TestRecycleBin)
#include "tst_recycle_bin.moc"
