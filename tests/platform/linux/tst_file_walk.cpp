// Tests of walking directory trees through handles: against the framework's way, and beyond it.
#include "platform/file_walk.h"

#include "support/child_process.h"
#include "support/file_tree.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <functional>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using platform::EntryVisitor;
using platform::WalkedEntry;

namespace korvane::platform {

// The same of the build without a back end, under another name (see CMakeLists.txt).
void walkFilesByFramework(const QString& root, const EntryVisitor& visit);
void walkEntriesByFramework(const QString& root, const EntryVisitor& visitEntry,
                            const EntryVisitor& visitFile);

} // namespace korvane::platform

namespace {

constexpr uid_t nobody = 65534;

QString lineOf(const WalkedEntry& entry)
{
    return u"%1 %2 %3 %4"_s.arg(QString::number(entry.isDirectory()), QString::number(entry.size()),
                                entry.name(), entry.path());
}

/// What a walk shows, sorted; it ends after `limit` lines.
class Lines
{
public:
    explicit Lines(qsizetype limit = -1) : m_limit(limit) {}

    EntryVisitor visitor(const QString& mark = {})
    {
        return [this, mark](const WalkedEntry& entry) {
            m_lines.append(mark + lineOf(entry));
            return m_lines.size() != m_limit;
        };
    }

    QStringList sorted()
    {
        m_lines.sort();
        return m_lines;
    }

private:
    qsizetype m_limit;
    QStringList m_lines;
};

template <typename Walk> QStringList files(Walk walk, const QString& root)
{
    Lines lines;
    walk(root, lines.visitor());
    return lines.sorted();
}

template <typename Walk> QStringList entries(Walk walk, const QString& root)
{
    Lines lines;
    walk(root, lines.visitor(u"entry "_s), lines.visitor());
    return lines.sorted();
}

/// Makes a tree at random below the current directory.
class TreeMaker
{
public:
    explicit TreeMaker(quint32 seed) : m_random(seed) {}

    void fill(int depth)
    {
        const int count = m_random.bounded(12);
        for (int i = 0; i < count; ++i)
            makeOne(depth, names.at(m_random.bounded(static_cast<int>(names.size()))) +
                               QByteArray::number(i));
    }

private:
    void makeOne(int depth, const QByteArray& name)
    {
        static constexpr std::array<mode_t, 4> modes{0755, 0711, 0744, 0};
        switch (m_random.bounded(9)) {
        case 0:
        case 1:
        case 2:
            if (depth == 0)
                return;
            (void)::mkdir(name.constData(), 0755);
            (void)::chdir(name.constData());
            fill(depth - 1);
            (void)::chdir("..");
            (void)::chmod(name.constData(),
                          modes.at(m_random.bounded(8U) == 0 ? m_random.bounded(4U) : 0U));
            return;
        case 3: {
            static constexpr std::array targets{"..",          ".",     "../..",
                                                "/nowhere",    "self",  "/etc/default",
                                                "/etc/passwd", "../a0", "../.hidden1"};
            (void)::symlink(m_random.bounded(4) == 0 ? name.constData()
                                                     : targets.at(m_random.bounded(9)),
                            name.constData());
            return;
        }
        case 4:
            (void)::mkfifo(name.constData(), 0600);
            return;
        case 5:
            (void)::mknod(name.constData(), S_IFSOCK | 0600, 0);
            return;
        default:
            QFile file(QFile::decodeName(name));
            (void)file.open(QIODevice::WriteOnly);
            (void)file.resize(m_random.bounded(2) == 0 ? 0 : m_random.bounded(1 << 20));
        }
    }

    const QList<QByteArray> names{"a",     ".hidden",   "b c", "中文",
                                  "x%20y", "new\nline", "-",   "back\\slash"};
    QRandomGenerator m_random;
};

/// Creates a file below `depth` directories "d" in the current one, by way of relative paths.
bool makeDeep(int depth)
{
    for (int i = 0; i < depth; ++i) {
        if (::mkdir("d", 0755) != 0 || (i % 1000 == 0 && ::mkdir("e", 0755) != 0) ||
            ::chdir("d") != 0)
            return false;
    }
    return ::mkdir("side", 0755) == 0 && ::close(::creat("bottom", 0600)) == 0;
}

} // namespace

class FileWalkTest : public QObject
{
    Q_OBJECT

    const QString m_home = QDir::currentPath();
    QString m_root; ///< A directory of the test's own, and the current one when the test starts.

private Q_SLOTS:
    void init()
    {
        QTemporaryDir directory;
        directory.setAutoRemove(false);
        m_root = directory.path();
        QVERIFY(::chmod(qPrintable(m_root), 0755) == 0 && QDir::setCurrent(m_root));
    }

    void cleanup()
    {
        QVERIFY(QDir::setCurrent(m_home));
        // The framework neither knows names that are not UTF-8 nor paths of any length.
        QCOMPARE(QProcess::execute(u"rm"_s, {u"-rf"_s, m_root}), 0);
    }

    void showsWhatTheFrameworkShows()
    {
        const uint seed = QRandomGenerator::global()->generate();
        qInfo("seed %u", seed);
        qsizetype lines = 0;
        for (quint32 i = 0; i < 60; ++i) {
            const QString root = u"%1/%2/b"_s.arg(m_root, QString::number(i)); // links lead up
            QVERIFY(QDir().mkpath(root) && QDir::setCurrent(root));
            TreeMaker(seed + i).fill(5);
            // As a user to whom not everything is open, also where the test runs as root.
            const int before = ::setfsuid(nobody);
            const QString shown = i % 2 == 0 ? root : root + u"//../b/"_s;
            const QStringList walked = files(platform::walkFiles, shown);
            const QStringList expected = files(platform::walkFilesByFramework, shown);
            const QStringList entered = entries(platform::walkEntries, root);
            const QStringList expectedEntries = entries(platform::walkEntriesByFramework, root);
            ::setfsuid(static_cast<uid_t>(before));
            QCOMPARE(walked, expected);
            QCOMPARE(entered, expectedEntries);
            lines += walked.size();
        }
        QVERIFY(lines > 200);
    }

    void startsAtLinksAndInTheCurrentDirectory()
    {
        test::makeTree(m_root, u"real/file=0|link>real"_s);
        QCOMPARE(files(platform::walkFiles, u"link"_s), QStringList{u"0 0 file link/file"_s});
        QCOMPARE(files(platform::walkFiles, u""_s), QStringList{u"0 0 file ./real/file"_s});
        QCOMPARE(files(platform::walkFiles, u""_s), files(platform::walkFilesByFramework, u""_s));
        QCOMPARE(entries(platform::walkEntries, m_root).filter(u"link/file"_s).size(), 1);
        QCOMPARE(files(platform::walkFiles, u"real/file"_s), QStringList());
        QCOMPARE(files(platform::walkFiles, u"nowhere"_s), QStringList());
    }

    void showsNamesThatAreNotUtf8()
    {
        QVERIFY(::mkdir("d\xff", 0755) == 0 && ::close(::creat("d\xff/f\xfe", 0600)) == 0);
        QVERIFY(::close(::creat("\xef\xbf\xbd", 0600)) == 0); // U+FFFD, honestly
        // A byte order mark, which newer releases of the framework leave out of names.
        QVERIFY(::close(::creat("\xef\xbb\xbfmark", 0600)) == 0);
        QHash<QString, bool> exact;
        const auto note = [&](const WalkedEntry& entry) {
            exact.insert(entry.path(), entry.hasExactPath());
            return entry.path().endsWith(u'/' + entry.name());
        };
        platform::walkEntries(u"."_s, note, note);
        const QHash<QString, bool> expected{{u"./d\ufffd"_s, false},
                                            {u"./d\ufffd/f\ufffd"_s, false},
                                            {u"./\ufffd"_s, true},
                                            {u"./\ufeffmark"_s, true}};
        QCOMPARE(exact, expected);
    }

    void endsWhenTold()
    {
        for (const auto& name : {u"a"_s, u"b"_s, u"c"_s})
            test::makeTree(m_root, QString(u"%1/d/0=0|%1/d/1=0|%1/d/2=0"_s).replace(u"%1"_s, name));
        for (qsizetype limit = 1; limit <= 9; ++limit) {
            Lines walked(limit);
            platform::walkFiles(u"."_s, walked.visitor());
            QCOMPARE(walked.sorted().size(), limit);
            Lines entered(limit);
            platform::walkEntries(u"."_s, entered.visitor(), entered.visitor());
            QCOMPARE(entered.sorted().size(), limit);
        }
    }

    void goesDeepWithFewHandles_data()
    {
        QTest::addColumn<int>("depth");
        QTest::addColumn<int>("handles");
        QTest::newRow("a path far longer than any call takes") << 10000 << 0;
        QTest::newRow("with next to no handles") << 600 << 4;
    }

    void goesDeepWithFewHandles()
    {
        QFETCH(const int, depth);
        QFETCH(const int, handles);
        QVERIFY(makeDeep(depth));
        // Files beside the way, which are found after the deepest.
        QVERIFY(QDir::setCurrent(m_root));
        for (int i = 0; i < 500; ++i)
            QVERIFY(::mkdir("z", 0755) == 0 && ::close(::creat("z/f", 0600)) == 0 &&
                    ::chdir("d") == 0);
        // Ways down with nothing beside them, of which the walk is back at the root at once.
        for (const auto& way : {u"1"_s, u"2"_s, u"3"_s})
            test::makeTree(m_root, way + u"/d"_s.repeated(400) + u"/f=0"_s);

        rlimit before = {};
        QVERIFY(::getrlimit(RLIMIT_NOFILE, &before) == 0);
        const int open = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const rlimit few{static_cast<rlim_t>(open + handles), before.rlim_max};
        if (handles > 0)
            (void)::setrlimit(RLIMIT_NOFILE, &few);
        int found = 0;
        int most = 0;
        platform::walkFiles(m_root, [&](const WalkedEntry&) {
            ++found;
            const int next = ::dup(open);
            most = std::max(most, next);
            return next < 0 || ::close(next) == 0;
        });
        (void)::setrlimit(RLIMIT_NOFILE, &before);
        (void)::close(open);
        QCOMPARE(found, 504);
        QVERIFY2(most < open + 300, qPrintable(QString::number(most - open)));
    }

    void leavesOutWhatVanishes()
    {
        for (int i = 0; i < 100; ++i)
            test::makeTree(m_root, u"first=0|%1/x/f=0"_s.arg(i));
        int found = 0;
        platform::walkFiles(u"."_s, [&](const WalkedEntry&) {
            if (found++ == 0) {
                for (int i = 0; i < 50; ++i)
                    QDir(u"%1"_s.arg(i)).removeRecursively();
            }
            return true;
        });
        QCOMPARE(found, 51);
    }

    void entersNothingInPlaceOfWhatItWasIn_data()
    {
        QTest::addColumn<int>("moved"); // The level of what is moved...
        QTest::addColumn<int>("from");  // ... once the walk is back at this one.
        QTest::newRow("all, at the bottom") << 0 << 400;
        QTest::newRow("a part, at the bottom") << 30 << 400;
        QTest::newRow("a part, on the way back") << 30 << 45;
    }

    void entersNothingInPlaceOfWhatItWasIn()
    {
        QFETCH(const int, moved);
        QFETCH(const int, from);
        test::makeTree(m_root, u"in/a"_s + u"/d"_s.repeated(400) + u"/bottom=0|out/"_s);
        const auto makeSides = [this] {
            for (int i = 0; i < 60; ++i)
                test::makeTree(
                    m_root,
                    u"in/a%1/side %2/f=0|out/side %2/out=0"_s.arg(u"/d"_s.repeated(i)).arg(i));
        };
        makeSides();
        bool isBack = false;
        bool isMoved = false;
        QList<qsizetype> above;
        QStringList wrong;
        platform::walkFiles(u"in"_s, [&](const WalkedEntry& file) {
            const qsizetype level = file.path().count(u"/d"_s);
            if (level < moved)
                above.append(level);
            // What is moved while the walk is near may be shown to its end; nothing else may.
            if (file.name() == u"out" || (isMoved && from == 400 && level >= moved))
                wrong.append(file.path());
            isBack = isBack || file.name() == u"bottom";
            if (isBack && !isMoved && level <= from) {
                const QByteArray path = (u"in/a"_s + u"/d"_s.repeated(moved)).toUtf8();
                isMoved = ::rename(path.constData(), "out/a") == 0;
                makeSides();
            }
            return true;
        });
        QVERIFY(isMoved);
        QCOMPARE(wrong, QStringList());
        QCOMPARE(above.size(), moved); // What lies above is not lost with it.
    }

    void leavesOutWhatTheKernelMakesUp()
    {
        if (::geteuid() != 0)
            QSKIP("only root may mount");
        test::Child child([] {
            if (::unshare(CLONE_NEWNS) != 0 ||
                ::mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mkdir("in", 0755) != 0 || ::mkdir("in/proc", 0755) != 0 ||
                ::mkdir("in/other", 0755) != 0 || ::mkdir("bound", 0755) != 0 ||
                ::mount("proc", "in/proc", "proc", 0, nullptr) != 0 ||
                ::mount("proc", "in/proc/sys/kernel/random", "proc", 0, nullptr) != 0 ||
                ::mount("tmpfs", "in/other", "tmpfs", 0, nullptr) != 0 ||
                ::close(::creat("in/other/f", 0600)) != 0)
                ::_exit(77);
            const bool isRight = files(platform::walkFiles, u"."_s).size() == 1 &&
                                 entries(platform::walkEntries, u"in"_s).size() == 3 &&
                                 files(platform::walkFiles, u"in/proc/sys/kernel"_s)
                                     .join(u' ')
                                     .contains(u"random/stat");
            ::_exit(isRight ? 0 : 1);
        });
        const int status = child.wait();
        if (status == 77)
            QSKIP("this machine does not let the test mount");
        QCOMPARE(status, 0);
    }
};

QTEST_GUILESS_MAIN(FileWalkTest)
#include "tst_file_walk.moc"
