// Tests the recycle bin by what other programs find and restore there. Runs by own_tmp.sh only.
#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/trash_mover.h"
#include "platform/linux/trash/tree_copy.h"
#include "platform/linux/trash/tree_removal.h"
#include "platform/recycle_bin.h"
#include "support/child_process.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

#include <cstddef>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using platform::moveToRecycleBin;
using test::Child;

namespace {

const QString around = qEnvironmentVariable("KORVANE_OWN_TMP");
const QString home = qEnvironmentVariable("HOME");
const QString volume = qEnvironmentVariable("KORVANE_VOLUME");
const QString homeTrash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash"_L1;

void write(const QString& path, const QByteArray& content)
{
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Append), qPrintable(path));
    QCOMPARE(file.write(content), content.size());
}

void setTimes(const QString& path, time_t seconds, long nanoseconds)
{
    const std::array<timespec, 2> times{timespec{seconds - 9, 7}, timespec{seconds, nanoseconds}};
    QCOMPARE(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times.data(),
                         AT_SYMLINK_NOFOLLOW),
             0);
}

bool mode(const QString& path, mode_t bits)
{
    return ::chmod(QFile::encodeName(path).constData(), bits) == 0;
}

bool link(const QString& from, const QString& to, bool isSymbolic)
{
    const QByteArray target = QFile::encodeName(from);
    const QByteArray name = QFile::encodeName(to);
    return (isSymbolic ? ::symlink(target.constData(), name.constData())
                       : ::link(target.constData(), name.constData())) == 0;
}

/// The extended attributes of the user, in the file system's order made one.
QByteArray attributesOf(const QByteArray& path)
{
    QByteArray names(4096, 0);
    names.resize(std::max<ssize_t>(
        ::llistxattr(path.constData(), names.data(), static_cast<size_t>(names.size())), 0));
    QByteArrayList found;
    for (const QByteArray& name : names.split('\0')) {
        QByteArray value(4096, 0);
        const ssize_t size = ::lgetxattr(path.constData(), name.constData(), value.data(), 4096);
        if (size >= 0)
            found << name + '=' + value.first(size).toHex();
    }
    std::sort(found.begin(), found.end());
    return found.join(' ');
}

QByteArray contentOf(const QByteArray& path)
{
    QFile file;
    const int handle = ::open(path.constData(), O_RDONLY | O_NOATIME | O_CLOEXEC);
    if (!file.open(handle, QIODevice::ReadOnly, QFile::AutoCloseHandle))
        return "?";
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(&file);
    return hash.result().toHex();
}

/// What an entry in the trash must have in common with what it was: all, or without what a restoring
/// program that copies does not keep.
enum class Compared { All, AfterACopy };

QByteArrayList describe(const QString& root, Compared compared = Compared::All)
{
    QByteArrayList lines;
    QMap<ino_t, QString> firstNames;
    QStringList paths{root};
    QDirIterator all(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                     QDirIterator::Subdirectories);
    while (all.hasNext())
        paths << all.next();
    paths.sort();
    for (const QString& path : paths) {
        const QByteArray name = QFile::encodeName(path);
        struct stat info = {};
        if (::lstat(name.constData(), &info) != 0)
            continue;
        const QString shown = path.sliced(root.size());
        QByteArrayList line{shown.toUtf8(), QByteArray::number(info.st_mode, 8),
                            attributesOf(name)};
        if (compared == Compared::All || !S_ISLNK(info.st_mode))
            line << QByteArray::number(qint64{info.st_mtim.tv_sec})
                 << QByteArray::number(qint64{info.st_mtim.tv_nsec});
        if (!S_ISDIR(info.st_mode)) {
            if (!firstNames.contains(info.st_ino))
                firstNames[info.st_ino] = shown;
            line << QByteArray::number(qint64{info.st_size});
            if (compared == Compared::All)
                line << firstNames[info.st_ino].toUtf8() << QByteArray::number(info.st_nlink);
        }
        if (S_ISLNK(info.st_mode)) {
            QByteArray target(4096, 0);
            line << target.first(::readlink(name.constData(), target.data(), 4096));
        } else if (S_ISREG(info.st_mode)) {
            line << contentOf(name);
            if (compared == Compared::All)
                line << QByteArray::number(qint64{info.st_atim.tv_nsec})
                     << (info.st_blocks * 512 < info.st_size ? "holes" : "");
        }
        lines << line.join('|');
    }
    return lines;
}

/// A directory with all that is hard to move.
void makeTree(const QString& root)
{
    QVERIFY(QDir().mkpath(root + "/deep/er"_L1) && QDir().mkdir(root + "/closed"_L1));
    const QString odd = root + u"/a %41 b\nc 中文"_s;
    write(odd, "odd");
    write(root + "/read only"_L1, QByteArray(70000, 'r'));
    write(root + "/closed/in it"_L1, "x");
    write(root + "/deep/er/"_L1 + u"长"_s.repeated(85), "long");
    QVERIFY(link(odd, root + "/deep/second name"_L1, false));
    QVERIFY(link(u"../read only"_s, root + "/deep/link"_L1, true));
    QVERIFY(link(u"nowhere/at all"_s, root + "/dangling"_L1, true));
    QFile sparse(root + "/sparse"_L1);
    QVERIFY(sparse.open(QIODevice::WriteOnly) && sparse.resize(50'000'000));
    QVERIFY(sparse.seek(20'000'000) && sparse.write("middle") == 6);
    sparse.close();
    const QByteArray path = QFile::encodeName(root + "/read only"_L1);
    QCOMPARE(::setxattr(path.constData(), "user.origin", "a\0b", 3, 0), 0);
    // The list of rights that lets user 0 read: version 2; owner, user 0, group, mask, others.
    const QByteArray rights = QByteArray::fromHex("02000000"
                                                  "01000600ffffffff"
                                                  "0200040000000000"
                                                  "04000400ffffffff"
                                                  "10000400ffffffff"
                                                  "20000000ffffffff");
    QCOMPARE(::setxattr(QFile::encodeName(odd).constData(), "system.posix_acl_access",
                        rights.constData(), static_cast<size_t>(rights.size()), 0),
             0);
    QVERIFY(mode(root + "/read only"_L1, 0400) && mode(root + "/closed"_L1, 0));
    QVERIFY(mode(root + "/deep/er"_L1, 0555) && mode(root, 02750));
    for (const char* name :
         {"/sparse", "/dangling", "/read only", "/deep/er", "/deep", "/closed", ""})
        setTimes(root + QLatin1StringView(name), 1'234'567'890, 123'456'789);
}

QString output(const QString& program, const QStringList& arguments, const QByteArray& input = {})
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60'000) || process.exitCode() != 0)
        return u"failed: "_s + QString::fromUtf8(process.readAllStandardError());
    return QString::fromUtf8(process.readAllStandardOutput());
}

void restore(const QString& path)
{
    const QString said = output(u"trash-restore"_s, {path}, "0\n");
    QVERIFY2(QFileInfo(path).exists() || QFileInfo(path).isSymLink(), qPrintable(said));
}

/// The name in the trash: what leaves room for that of the info file.
QString inTrash(const QString& name)
{
    return name.left(name.startsWith(u'长') ? 81 : name.size());
}

/// Everything in a trash is whole: no entry without its info file, nor the other way round, and
/// nothing on the way.
void checkTrash(const QString& trash)
{
    const auto filters = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    const QStringList files = QDir(trash + "/files"_L1).entryList(filters);
    const QStringList infos = QDir(trash + "/info"_L1).entryList(filters);
    QCOMPARE(
        QStringList(files).replaceInStrings(QRegularExpression(u"$"_s), u".trashinfo"_s).size(),
        infos.size());
    for (const QString& file : files)
        QVERIFY2(infos.contains(file + ".trashinfo"_L1), qPrintable(file));
    QCOMPARE(QDir(trash + "/korvane-staging"_L1).entryList(filters), QStringList());
}

/// Lets this process have no lease from here on.
void refuseLeases(int error)
{
    std::array<sock_filter, 6> filter{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fcntl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 8), // little-endian
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_SETLEASE, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{filter.size(), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        ::_exit(1);
}

void clear(const QString& directory)
{
    output(u"chmod"_s, {u"-R"_s, u"u+rwx"_s, directory});
    QDir(directory).removeRecursively();
}

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

    void everythingComesBack_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::addColumn<QString>("trash");
        QTest::addRow("on the disk of the home") << around + "/work"_L1 << homeTrash;
        QTest::addRow("in memory") << u"/tmp/work"_s << homeTrash;
        QTest::addRow("on another volume")
            << volume + "/work"_L1 << volume + "/.Trash-"_L1 + QString::number(::geteuid());
        QTest::addRow("at the top of another volume") << volume << homeTrash;
    }

    void everythingComesBack()
    {
        QFETCH(const QString, directory);
        QFETCH(const QString, trash);
        if (volume.isEmpty() && QByteArray(QTest::currentDataTag()).contains("volume"))
            QSKIP("no other volume here");
        QVERIFY(QDir().mkpath(directory));
        const QStringList names{u"tree 100% 树"_s, u"长"_s.repeated(85), u"a\nb"_s, u"link"_s};
        makeTree(directory + u'/' + names[0]);
        write(directory + u'/' + names[1], "long");
        write(directory + u'/' + names[2], "line feed");
        QVERIFY(link(u"nowhere"_s, directory + u'/' + names[3], true));
        QStringList paths;
        QList<QByteArrayList> before;
        QList<QByteArrayList> beforeCopy;
        for (const QString& name : names) {
            paths << directory + u'/' + name;
            before << describe(paths.last());
            beforeCopy << describe(paths.last(), Compared::AfterACopy);
        }

        const OpResult result = moveToRecycleBin(paths);
        QCOMPARE(result.message, u"已移到回收站 4 项"_s);
        QVERIFY(result.ok);
        for (const QString& path : paths)
            QVERIFY(!QFileInfo(path).exists() && !QFileInfo(path).isSymLink());
        checkTrash(trash);
        QCOMPARE(QDir(trash + "/info"_L1).entryList(QDir::Files).size(), 4);
        QVERIFY(output(u"trash-list"_s, {}).contains(u' ' + paths[0] + u'\n'));

        for (qsizetype i = 0; i < paths.size(); ++i) {
            QCOMPARE(describe(trash + "/files/"_L1 + inTrash(names[i])), before[i]);
            restore(paths[i]);
            QCOMPARE(describe(paths[i], Compared::AfterACopy), beforeCopy[i]);
            clear(paths[i]);
            QFile::remove(paths[i]);
        }
    }

    void sameNameTwice()
    {
        for (const char* content : {"first", "second"}) {
            write(u"/tmp/twice"_s, content);
            QVERIFY(moveToRecycleBin({u"/tmp/twice"_s}).ok);
        }
        const QStringList files = QDir(homeTrash + "/files"_L1).entryList(QDir::Files);
        QCOMPARE(files, QStringList({u"twice"_s, u"twice.2"_s}));
        checkTrash(homeTrash);
        QVERIFY(contentOf(QFile::encodeName(homeTrash + "/files/twice"_L1)) !=
                contentOf(QFile::encodeName(homeTrash + "/files/twice.2"_L1)));
    }

    void whatCannotBeMovedStays()
    {
        write(u"/tmp/free"_s, "x");
        write(u"/tmp/open"_s, "x");
        QVERIFY(QDir().mkpath(u"/tmp/outer/inner"_s));
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
        QVERIFY(QFile::exists(u"/tmp/open"_s) && QFile::exists(homeTrash + "/files/old"_L1));

        const OpResult none = moveToRecycleBin({u"/tmp/open"_s});
        QVERIFY(!none.ok);
        QVERIFY(none.message.endsWith(u"跳过 1 项 (正在使用 1)"_s));
        QVERIFY(moveToRecycleBin({u"/tmp/gone"_s}).ok);
        QFile::remove(u"/tmp/open"_s);
    }

    void aTemporaryDirectoryAroundTheHome()
    {
        const QString inHome = home + "/document"_L1;
        const QString inLinked = around + "/linked/document"_L1;
        QVERIFY(QDir().mkpath(home + "/.cache"_L1) && link(home, around + "/linked"_L1, true));
        for (const QString& file : {inHome, around + "/file"_L1, home + "/.cache/idle"_L1})
            write(file, "x");
        for (const auto& [directory, path] :
             {std::pair(home, inHome), std::pair(around + "/linked/."_L1, inHome),
              std::pair(home, inLinked), std::pair(around, around + "/file"_L1),
              std::pair(u"/"_s, u"/korvane-none"_s)}) {
            qputenv("TMPDIR", QFile::encodeName(directory));
            const OpResult result = moveToRecycleBin({path});
            QVERIFY2(result.message.endsWith(u"跳过 1 项 (临时目录为用户目录或其上级 1)"_s),
                     qPrintable(result.message));
        }
        QVERIFY(QFile::exists(inHome));
        qputenv("TMPDIR", QFile::encodeName(home));
        QVERIFY(moveToRecycleBin({home + "/.cache/idle"_L1}).ok);
        qunsetenv("TMPDIR");
        QVERIFY(moveToRecycleBin({inHome}).ok);
    }

    void whatAnotherNamespaceMountedStays_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<bool>("isLate"); ///< Mounted after the entry was judged.
        for (const bool isLate : {false, true}) {
            const char* when = isLate ? "late" : "early";
            QTest::addRow("in memory, %s", when) << u"/tmp/mounted"_s << u"含挂载点"_s << isLate;
            QTest::addRow("on the disk, %s", when)
                << around + "/mounted"_L1 << u"含挂载点"_s << isLate;
            QTest::addRow("a source, %s", when) << u"/tmp/mounted/in"_s << u"正在使用"_s << isLate;
        }
    }

    void whatAnotherNamespaceMountedStays()
    {
        using namespace linux_platform;
        QFETCH(const QString, directory);
        QFETCH(const QString, reason);
        QFETCH(const bool, isLate);
        const bool isSource = reason == u"正在使用"_s;
        QVERIFY(QDir().mkpath(directory + "/entry/mnt"_L1));
        write(directory + "/entry/file"_L1, "x");
        std::vector<TrashCandidate> judged(1);
        judged[0].source = SourceDirectory::open(QFile::encodeName(directory)).value();
        judged[0].name = "entry";

        const QByteArray place = QFile::encodeName(directory + "/entry/mnt"_L1);
        const Child child([&] {
            if (::unshare(CLONE_NEWNS) != 0 ||
                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                (isSource ? ::mount(place.constData(), "/mnt", nullptr, MS_BIND, nullptr)
                          : ::mount("tmpfs", place.constData(), "tmpfs", 0, nullptr)) != 0 ||
                ::close(::creat((place + "/data").constData(), 0600)) != 0)
                ::_exit(1);
        });
        const QString data = u"/proc/%1/root%2/data"_s.arg(
            QString::number(child.pid()), isSource ? u"/mnt"_s : QFile::decodeName(place));
        QVERIFY(QFile::exists(data));
        if (isLate) {
            TrashMover().move(judged);
            QCOMPARE(judged[0].outcome, TrashCandidate::Outcome::Kept);
            QCOMPARE(judged[0].why, reason);
        } else {
            const OpResult result = moveToRecycleBin({directory + "/entry"_L1});
            QVERIFY2(result.message.endsWith(u"跳过 1 项 (%1 1)"_s.arg(reason)),
                     qPrintable(result.message));
        }
        QVERIFY(QFile::exists(data) && QFile::exists(directory + "/entry/file"_L1));
        checkTrash(homeTrash);
        clear(directory);
    }

    void aTrashThatTakesNothing()
    {
        const QString small = around + "/small"_L1;
        QVERIFY(QDir().mkpath(small));
        write(u"/tmp/large"_s, QByteArray(8'000'000, 'l'));
        const QByteArrayList before = describe(u"/tmp/large"_s);
        QCOMPARE(::mount("tmpfs", QFile::encodeName(small).constData(), "tmpfs", 0, "size=70m"), 0);
        const QString others = around + "/others"_L1;
        const bool hasOthers =
            QDir().mkpath(others) && ::chown(QFile::encodeName(others).constData(), 65534, 0) == 0;
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
        QCOMPARE(::umount(QFile::encodeName(small).constData()), 0);
        QFile::remove(u"/tmp/large"_s);
    }

    void aTrashThatOthersMadeIsNotUsed()
    {
        if (volume.isEmpty())
            QSKIP("no other volume here");
        const QString trash = volume + "/.Trash-"_L1 + QString::number(::geteuid());
        clear(trash);
        QVERIFY(link(u"/tmp"_s, trash, true) && QDir().mkpath(volume + "/work"_L1));
        write(volume + "/work/file"_L1, "x");
        QVERIFY(moveToRecycleBin({volume + "/work/file"_L1}).ok);
        QVERIFY(QFile::exists(homeTrash + "/files/file"_L1) && !QFile::exists(u"/tmp/files"_s));
        QFile::remove(trash);
    }

    void aFileThatChangesMeanwhileStays()
    {
        write(u"/tmp/changing"_s, QByteArray(100'000'000, 'c'));
        const Child toucher([] {},
                            [] {
                                for (;;)
                                    ::utimensat(AT_FDCWD, "/tmp/changing", nullptr, 0);
                            });
        QVERIFY(QDir().mkpath(u"/tmp/copies"_s));
        const linux_platform::UniqueFd copies(::open("/tmp/copies", O_RDONLY | O_CLOEXEC));
        QCOMPARE(linux_platform::copyTree(AT_FDCWD, "/tmp/changing", copies.get(), "copy"), EBUSY);
        QCOMPARE(linux_platform::removeTree(AT_FDCWD, "/tmp/copies"), 0);
        const OpResult result = moveToRecycleBin({u"/tmp/changing"_s});
        QVERIFY(!result.ok);
        QVERIFY2(result.message.contains(u"正在使用 1"_s), qPrintable(result.message));
        QCOMPARE(QFileInfo(u"/tmp/changing"_s).size(), 100'000'000);
        checkTrash(homeTrash);
        QFile::remove(u"/tmp/changing"_s);
    }

    void onlyWhatWasCopiedIsRemoved()
    {
        using namespace linux_platform;
        const QString source = u"/tmp/source"_s;
        QVERIFY(QDir().mkpath(source + "/below"_L1) && QDir().mkpath(u"/tmp/copies"_s));
        for (const char* name : {"/same", "/grown", "/touched", "/open", "/leased", "/below/same"})
            write(source + QLatin1StringView(name), "x");
        QVERIFY(link(u"one"_s, source + "/link"_L1, true));
        const UniqueFd copies(::open("/tmp/copies", O_RDONLY | O_CLOEXEC));
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/source", copies.get(), "copy"), 0);
        write(source + "/grown"_L1, "x");
        write(source + "/below/new"_L1, "x");
        setTimes(source + "/touched"_L1, 1, 2);
        const UniqueFd open(::open("/tmp/source/open", O_RDONLY | O_CLOEXEC));
        const UniqueFd leased(::open("/tmp/source/leased", O_RDONLY | O_CLOEXEC));
        QCOMPARE(::fcntl(leased.get(), F_SETSIG, SIGURG), 0);
        QCOMPARE(::fcntl(leased.get(), F_SETLEASE, F_WRLCK), 0);
        QVERIFY(QFile::remove(source + "/link"_L1) && link(u"two"_s, source + "/link"_L1, true));

        const RemovedOriginal removed =
            removeOriginal(AT_FDCWD, "/tmp/source", copies.get(), "copy");
        QVERIFY(!removed.isGone && !removed.isUntouched);
        QCOMPARE(removed.error, EBUSY);
        QStringList left;
        QDirIterator all(source, QDir::Files | QDir::System, QDirIterator::Subdirectories);
        while (all.hasNext())
            left << all.next().sliced(source.size());
        left.sort();
        QCOMPARE(left, QStringList({u"/below/new"_s, u"/grown"_s, u"/leased"_s, u"/link"_s,
                                    u"/open"_s, u"/touched"_s}));

        rlimit limits = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limits), 0);
        const rlimit none{0, limits.rlim_max};
        QCOMPARE(copyTree(AT_FDCWD, "/tmp/source/grown", copies.get(), "grown"), 0);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &none), 0);
        const int error =
            removeOriginal(AT_FDCWD, "/tmp/source/grown", copies.get(), "grown").error;
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limits), 0);
        QCOMPARE(error, EMFILE);
        QVERIFY(QFile::exists(source + "/grown"_L1));
        clear(source);
        QCOMPARE(removeTree(AT_FDCWD, "/tmp/copies"), 0);
    }

    void whatNoLeaseVouchesForStays_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<QString>("message");
        const QString none = u"没有内容被移到回收站, 跳过 2 项 (%1 2)"_s;
        // Where the file system has none, a rename still loses nothing that is written to it.
        QTest::newRow("has none") << EINVAL
                                  << u"已移到回收站 1 项, 跳过 1 项 (无法确认未被使用 1)"_s;
        QTest::newRow("refused") << EACCES << none.arg(u"无权限"_s);
        QTest::newRow("failed") << ENOLCK << none.arg(u"无法读取"_s);
    }
    void whatNoLeaseVouchesForStays()
    {
        QFETCH(const int, error);
        QFETCH(const QString, message);
        const QString renamed = around + "/renamed"_L1;
        const QString said = around + "/said"_L1;
        QVERIFY(QDir().mkpath(u"/tmp/copied/below"_s));
        write(u"/tmp/copied/below/file"_s, "x");
        write(renamed, "x");
        Child mover([&] {
            refuseLeases(error);
            write(said, moveToRecycleBin({u"/tmp/copied"_s, renamed}).message.toUtf8());
            ::_exit(0);
        });
        QCOMPARE(mover.wait(), 0);
        QFile result(said);
        QVERIFY(result.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(result.readAll()), message);
        QVERIFY(QFile::exists(u"/tmp/copied/below/file"_s));
        QCOMPARE(QFile::exists(renamed), error != EINVAL);
        checkTrash(homeTrash);
        QFile::remove(said);
        QFile::remove(renamed);
        clear(u"/tmp/copied"_s);
    }

    void rootFollowsNobodysLinks_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("message");
        const QString own = around + "/way/own/entry"_L1;
        const QString linked = around + "/way/link/entry"_L1;
        const QString moved = u"已移到回收站 2 项"_s;
        const QString skipped = u"已移到回收站 1 项, 跳过 1 项 (%1 1)"_s;
        const auto row = [&](const QByteArray& script, const QString& path,
                             const QString& message = {}) {
            QTest::newRow(script.constData())
                << script << path
                << (message.isEmpty() ? skipped.arg(u"路径可被他人更改"_s) : message);
        };
        row("chown 65534 way", own);
        row("chmod 775 way", own);
        row("chmod 777 way/own", own);
        row("chmod 1777 way; chown 65534 way", own);
        row("chmod 1777 way", own, moved);
        row("ln -s ../precious/../precious way/link", linked, moved);
        row("ln -s $PWD/precious way/link; chown 65534 way", linked);
        row("ln -s $PWD/precious way/link; chmod 1777 way", linked);
        row("ln -s $PWD/precious way/link; chown -h 65534 way/link", linked);
        row("ln -s link way/link", linked, skipped.arg(u"无法读取"_s));
    }
    void rootFollowsNobodysLinks()
    {
        QFETCH(const QByteArray, script);
        QFETCH(const QString, path);
        QFETCH(const QString, message);
        const auto run = [](const QByteArray& commands) {
            const QString inPlace = u"cd \"$0\"; "_s + QString::fromUtf8(commands);
            return output(u"sh"_s, {u"-ec"_s, inPlace, around});
        };
        const QString made = run("rm -rf precious way; mkdir -p precious/theirs way/own; "
                                 "chown 65534 precious/theirs; "
                                 "touch precious/entry way/own/entry; " +
                                 script);
        if (made.contains("chown:"_L1))
            QSKIP("one user alone here");
        QCOMPARE(made, QString());
        write(u"/tmp/free"_s, "x");
        QCOMPARE(moveToRecycleBin({path, u"/tmp/free"_s}).message, message);
        const bool isMoved = message == u"已移到回收站 2 项"_s;
        QCOMPARE(run("cat way/own/entry precious/entry").isEmpty(), !isMoved);
    }

    void filesOfTheSameNumberAreNotOne()
    {
        // The layers number their files each by themselves, as subvolumes do.
        const QString root = u"/tmp/layers"_s;
        for (const QString& layer : {u"/a"_s, u"/b"_s}) {
            const QString place = root + layer;
            QVERIFY(QDir().mkpath(place) && QDir().mkpath(root + "/all"_L1));
            QCOMPARE(::mount("tmpfs", QFile::encodeName(place).constData(), "tmpfs", 0, nullptr),
                     0);
            QVERIFY(QDir().mkdir(place + layer));
            write(place + layer + "/one"_L1, layer.toUtf8());
            QVERIFY(link(place + layer + "/one"_L1, place + layer + "/two"_L1, false));
            setTimes(place + layer + "/one"_L1, 1, 2);
        }
        const char* layers = "xino=off,lowerdir=/tmp/layers/a:/tmp/layers/b";
        if (::mount("overlay", "/tmp/layers/all", "overlay", 0, layers) != 0)
            QSKIP("no overlay here");
        const linux_platform::UniqueFd copies(::open("/tmp/layers", O_RDONLY | O_CLOEXEC));
        QCOMPARE(linux_platform::copyTree(copies.get(), "all", copies.get(), "copy"), 0);
        QCOMPARE(describe(root + "/copy"_L1, Compared::AfterACopy),
                 describe(root + "/all"_L1, Compared::AfterACopy));
        for (const char* mounted : {"/tmp/layers/all", "/tmp/layers/a", "/tmp/layers/b"})
            QCOMPARE(::umount(mounted), 0);
        clear(root);
    }

    void aKilledMoveLosesNothing_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("watched"); ///< The directory whose size tells how far a move is.
        const QString memory = u"/tmp/killed"_s;
        const QString disk = around + "/killed"_L1;
        for (const QString& source : {memory, disk}) {
            const char* way = source == memory ? "copies" : "renames";
            QTest::addRow("%s: announced", way) << source << homeTrash + "/info"_L1;
            QTest::addRow("%s: arrived", way) << source << homeTrash + "/files"_L1;
            QTest::addRow("%s: removed", way) << source << source;
        }
    }

    void aKilledMoveLosesNothing()
    {
        QFETCH(const QString, source);
        QFETCH(const QString, watched);
        constexpr int rounds = 3;
        constexpr int entries = 40;
        for (int round = 0; round < rounds; ++round) {
            clear(homeTrash);
            QList<QByteArrayList> before;
            s_paths.clear();
            for (int i = 0; i < entries; ++i) {
                const QString entry = source + u"/entry %1"_s.arg(i);
                QVERIFY(QDir().mkpath(entry + "/sub"_L1));
                for (int j = 0; j < 10; ++j)
                    write(entry + u"/sub/%1"_s.arg(j), QByteArray(5000, char('a' + j)));
                s_paths << entry;
                before << describe(entry);
            }
            killMove(watched, QRandomGenerator::global()->bounded(1, entries / 2));
            // The next call clears up behind it.
            write(u"/tmp/another"_s, "x");
            QVERIFY(moveToRecycleBin({u"/tmp/another"_s}).ok);
            checkTrash(homeTrash);
            for (int i = 0; i < entries; ++i) {
                const QString moved = homeTrash + u"/files/entry %1"_s.arg(i);
                QCOMPARE(describe(QFileInfo::exists(moved) ? moved : s_paths[i]), before[i]);
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
        siginfo_t ended = {};
        while (std::abs(count() - before) < steps && ended.si_pid == 0)
            ::waitid(P_PID, static_cast<id_t>(mover.pid()), &ended, WEXITED | WNOHANG | WNOWAIT);
    }

    inline static QStringList s_paths; ///< For the child.
};

QTEST_GUILESS_MAIN(TestRecycleBin)
#include "tst_recycle_bin.moc"
