// Tests of walking directory trees through handles: what only Linux has, and what only handles can.
#include "support/file_walk.h"
#include "support/system.h"

#include <sys/fsuid.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using platform::WalkedEntry;
using test::shown;

namespace {

/// Makes a tree in $0 of all that can be in one, twice in itself.
constexpr auto fill = R"sh(exec 2>&1; cd "$0"; set -e
    one() {
        mkdir -p plain passed listed closed .hidden/deep; mkfifo fifo; mknod dev p
        for i in "b c" 中文 x%20y "new
line" - 'back\\slash' .dot; do truncate -s 70000 "$i"; cp "$i" .hidden/deep; done
        for i in .. . ../.. /nowhere self /etc/default /etc/passwd ./fifo plain .dot; do
            name="to $(echo "$i" | tr / _)"; ln -s "$i" "$name"; ln -s "../$i" "plain/$name"; done
        ln -s self self; for i in passed listed closed; do touch "$i/file"; mkdir $i/d; done
    }
    one; cd .hidden/deep; rm -- *; one; cd ../../plain; mkdir in; cd in; one
    find "$0" \( -name passed -exec chmod 711 {} + \) -o \( -name listed -exec chmod 744 {} + \) \
        -o \( -name closed -exec chmod 0 {} + -prune \))sh";

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

/// How deep a tree is, and how many files may be open beside those that are.
const test::Cases<int, int> depths{
    {"a path far longer than any call takes", 10000, 0},
    {"with next to no handles", 600, 4},
};

/// The level of what is moved once the walk is back at the other one.
const test::Cases<int, int> moves{
    {"all, at the bottom", 0, 400},
    {"a part, at the bottom", 30, 400},
    {"a part, on the way back", 30, 45},
};

} // namespace

class LinuxFilesTest : public QObject
{
    Q_OBJECT

    const QString m_home = QDir::currentPath();
    QString m_root; ///< A directory of the test's own, and the current one when the test starts.

private Q_SLOTS:
    void init()
    {
        m_root = test::shell("made=$(mktemp -d); chmod 755 $made; printf %s $made");
        QVERIFY(QDir::setCurrent(m_root));
    }

    void cleanup()
    {
        QVERIFY(QDir::setCurrent(m_home));
        // The framework neither knows names that are not UTF-8 nor paths of any length.
        QCOMPARE(test::shell("rm -rf $0 2>&1", {m_root}), QString());
    }

    void showsWhatTheFrameworkShows()
    {
        const QString root = m_root + u"/a/b"_s; // links lead up
        QVERIFY(QDir().mkpath(root));
        QCOMPARE(test::shell(fill, {root}), QString());
        for (const QString& spelt : {root, root + u"//../b/"_s}) {
            // As a user to whom not everything is open, also where the test runs as root.
            const int before = ::setfsuid(test::nobody);
            const QStringList walked = shown(platform::walkFiles, spelt);
            const QStringList expected = shown(platform::walkFilesByFramework, spelt);
            const QStringList entered = shown(platform::walkEntries, spelt);
            const QStringList expectedEntries = shown(platform::walkEntriesByFramework, spelt);
            ::setfsuid(static_cast<uid_t>(before));
            QCOMPARE(walked, expected);
            QCOMPARE(entered, expectedEntries);
            QVERIFY2(walked.size() > 60, qPrintable(walked.join(u'\n')));
        }
    }

    void startsAtLinks()
    {
        test::makeTree(m_root, u"real/file=0|link>real"_s);
        QCOMPARE(shown(platform::walkFiles, u"link"_s), QStringList{u"0 0 file link/file"_s});
        QCOMPARE(shown(platform::walkFiles, u""_s), QStringList{u"0 0 file ./real/file"_s});
        QCOMPARE(shown(platform::walkEntries, m_root).filter(u"link/file"_s).size(), 1);
    }

    void showsNamesThatAreNotUtf8()
    {
        QVERIFY(::mkdir("d\xff", 0755) == 0 && ::close(::creat("d\xff/f\xfe", 0600)) == 0);
        QVERIFY(::close(::creat("\xef\xbf\xbd", 0600)) == 0); // U+FFFD, honestly
        // A byte order mark, which newer releases of the framework leave out of names.
        QVERIFY(::close(::creat("\xef\xbb\xbfmark", 0600)) == 0);
        QStringList exact;
        const auto note = [&](const WalkedEntry& entry) {
            exact += QString::number(entry.hasExactPath()) + entry.path();
            return entry.path().endsWith(u'/' + entry.name());
        };
        platform::walkEntries(u"."_s, note, note);
        exact.sort();
        QCOMPARE(exact, QStringList({u"0./d\ufffd"_s, u"0./d\ufffd/f\ufffd"_s, u"1./\ufeffmark"_s,
                                     u"1./\ufffd"_s}));
    }

    void goesDeepWithFewHandles_data() { test::addRows(depths); }
    void goesDeepWithFewHandles()
    {
        const auto& [name, depth, handles] = test::currentRow(depths);
        QVERIFY(makeDeep(depth));
        // Files beside the way, which are found after the deepest.
        QVERIFY(QDir::setCurrent(m_root));
        for (int i = 0; i < 500; ++i)
            QVERIFY(::mkdir("z", 0755) == 0 && ::close(::creat("z/f", 0600)) == 0 &&
                    ::chdir("d") == 0);
        // Ways down with nothing beside them, of which the walk is back at the root at once.
        for (const auto& way : {u"1"_s, u"2"_s, u"3"_s})
            test::makeTree(m_root, way + u"/d"_s.repeated(400) + u"/f=0"_s);

        const int open = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        int found = 0;
        int most = 0;
        {
            const test::FewDescriptors few(handles > 0 ? open + handles : 1024);
            platform::walkFiles(m_root, [&](const WalkedEntry&) {
                ++found;
                const int next = ::dup(open);
                most = std::max(most, next);
                return next < 0 || ::close(next) == 0;
            });
        }
        (void)::close(open);
        QCOMPARE(found, 504);
        QVERIFY2(most < open + 300, qPrintable(QString::number(most - open)));
    }

    void entersNothingInPlaceOfWhatItWasIn_data() { test::addRows(moves); }
    void entersNothingInPlaceOfWhatItWasIn()
    {
        const int moved = std::get<1>(test::currentRow(moves));
        const int from = std::get<2>(test::currentRow(moves));
        test::makeTree(m_root, u"in/a"_s + u"/d"_s.repeated(400) + u"/bottom=0|out/"_s);
        const auto makeSides = [] {
            test::shell(R"(way=in/a; for i in $(seq 60); do mkdir -p "$way/side $i" "out/side $i"
                : >"$way/side $i/f"; : >"out/side $i/out"; way=$way/d; done)");
        };
        makeSides();
        bool isBack = false;
        bool isMoved = false;
        int above = 0;
        QStringList wrong;
        platform::walkFiles(u"in"_s, [&](const WalkedEntry& file) {
            const qsizetype level = file.path().count(u"/d"_s);
            above += level < moved ? 1 : 0;
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
        QCOMPARE(above, moved); // What lies above is not lost with it.
    }

    void leavesOutWhatTheKernelMakesUp()
    {
        const QString lines = test::played([] {
            if (!test::makeMountsOwn() ||
                std::system("set -e; mkdir -p in/proc in/other bound; mount -t proc proc in/proc; "
                            "mount -t proc proc in/proc/sys/kernel/random; "
                            "mount -t tmpfs none in/other; touch in/other/f") != 0)
                ::_exit(test::refusedCode);
            QStringList all = shown(platform::walkFiles, u"in/proc/sys/kernel"_s);
            all = all.filter(u"random/stat"_s) + shown(platform::walkFiles, u"."_s);
            return (all + shown(platform::walkEntries, u"in"_s)).join(u'|');
        });
        if (lines.isEmpty())
            QSKIP("this machine does not let the test mount");
        QCOMPARE(lines, u"0 0 stat in/proc/sys/kernel/random/stat|0 0 f ./in/other/f|"
                        "0 0 f in/other/f|entry 1 0 other in/other|entry 1 0 proc in/proc"_s);
    }
};

QTEST_GUILESS_MAIN(LinuxFilesTest)
#include "tst_linux_files.moc"
