// Tests of walking directory trees that hold for every platform: the framework's way judges the back end's.
#include "base/watchdog.h"
#include "support/file_walk.h"
#include "support/table.h"

#include <QTemporaryDir>

using namespace korvane;
using namespace Qt::StringLiterals;
using test::shown;

namespace {

using WalkFiles = decltype(&platform::walkFiles);
using WalkEntries = decltype(&platform::walkEntries);

const test::Cases<WalkFiles, WalkEntries> walks{
    {"the back end", platform::walkFiles, platform::walkEntries},
    {"the framework", platform::walkFilesByFramework, platform::walkEntriesByFramework},
};

/// How the root is spelt, in the current directory, and how many files lie below it.
const test::Cases<QString, int> roots{
    {"the current directory", u""_s, 8},
    {"a folder", u"a"_s, 5},
    {"by way of another", u"a//../a/x/"_s, 2},
    {"with nothing", u"empty"_s, 0},
    {"a file", u"top"_s, 0},
    {"nowhere", u"nowhere/a"_s, 0},
};

/// Directories of three files each.
const QString three = u"in/a/d/0=0|in/a/d/1=1|in/a/d/2=2|in/b/d/0=0|in/b/d/1=1|in/b/d/2=2|"
                      "in/c/d/0=0|in/c/d/1=1|in/c/d/2=2"_s;

} // namespace

class FileWalkTest : public QObject
{
    Q_OBJECT

    const QString m_home = QDir::currentPath();
    std::unique_ptr<QTemporaryDir> m_root; ///< The current directory of each test.

private Q_SLOTS:
    void init()
    {
        m_root = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_root->path()));
    }

    void cleanup()
    {
        QVERIFY(QDir::setCurrent(m_home));
        QVERIFY(m_root->remove());
    }

    void showsWhatTheFrameworkShows_data() { test::addRows(roots); }
    void showsWhatTheFrameworkShows()
    {
        const auto& [name, root, count] = test::currentRow(roots);
        const QString deep = u"/a name of some length"_s.repeated(30); // longer than 260 characters
        test::makeTree(QDir::currentPath(),
                       u"top=7|.hidden=1|empty/|a/中文 名=300|a/x/x%20y=0|a/x/"
                       "-=12|a/.h/-/f=5000000000|a/U+FFFD=1|deep%1/f=2"_s.arg(deep));
        for (const QString& spelt : {root, QDir::currentPath() + u'/' + root}) {
            const QStringList found = shown(platform::walkFiles, spelt);
            QCOMPARE(found, shown(platform::walkFilesByFramework, spelt));
            QCOMPARE(found.size(), count);
            QCOMPARE(shown(platform::walkEntries, spelt),
                     shown(platform::walkEntriesByFramework, spelt));
        }
    }

    void endsWhenTold_data() { test::addRows(walks); }
    void endsWhenTold()
    {
        const auto& [name, walkFiles, walkEntries] = test::currentRow(walks);
        test::makeTree(u"."_s, three);
        for (qsizetype limit = 1; limit <= 9; ++limit) {
            QCOMPARE(shown(walkFiles, u"in"_s, limit).size(), limit);
            QCOMPARE(shown(walkEntries, u"in"_s, limit).size(), limit);
        }
    }

    void stepsAtEachDirectory()
    {
        if (qstrcmp(KORVANE_PLATFORM, "unsupported") == 0)
            QSKIP("the framework tells of no directory");
        for (int i = 0; i < 50; ++i)
            test::makeTree(QDir::currentPath(), u"a%1/|b/%1/c/"_s.arg(i));
        const auto before = Watchdog::steps();
        QCOMPARE(shown(platform::walkFiles, u"."_s), QStringList());
        QCOMPARE(Watchdog::steps() - before, 2UL * (50 + 1 + 100)); // seen and opened
        QCOMPARE(shown(platform::walkEntries, u"."_s).size(), 51);
        QVERIFY(Watchdog::steps() - before > 3UL * (50 + 1 + 100));
    }

    void leavesOutWhatVanishes_data() { test::addRows(walks); }
    void leavesOutWhatVanishes()
    {
        test::makeTree(u"."_s, three + u"|in/first=0"_s);
        int found = 0;
        std::get<1>(test::currentRow(walks))(u"in"_s, [&](const platform::WalkedEntry&) {
            if (found++ == 0)
                QDir(u"in"_s).removeRecursively();
            return true;
        });
        QVERIFY2(found < 10, qPrintable(QString::number(found)));
    }
};

QTEST_GUILESS_MAIN(FileWalkTest)
#include "tst_file_walk.moc"
