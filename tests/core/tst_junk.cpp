// Tests of the catalog of junk and of its scanner, on directories made for the test and on threads
// as the scanner's users run it.
#include "core/junk_scanner.h"
#include "fake/fake_platform.h"
#include "support/file_tree.h"
#include "support/json.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <array>
#include <optional>
#include <thread>
#include <utility>

using namespace korvane;
using namespace Qt::StringLiterals;

class JunkTest : public QObject
{
    Q_OBJECT

    std::optional<QTemporaryDir> m_directory;

    void set(const char* variable, const char* directory) const
    {
        const QByteArray path = (m_directory->path() + QString::fromUtf8(directory)).toUtf8();
        qputenv(variable, path);
        if (QByteArray(variable) == "TMPDIR") // as Windows calls it
            qputenv("TMP", path);
    }

    /// Whether a test may say where the home is: Windows asks the account.
    bool canMoveHome() const
    {
        set("HOME", "/home");
        return QDir::homePath() == m_directory->filePath(u"home"_s);
    }

    /// A row an array, roots from the test's directory on; without those in `directory`, and the
    /// categories that then have none.
    QString text(const QList<JunkCategory>& catalog, const char* directory = "//") const
    {
        QJsonArray rows;
        for (const JunkCategory& c : catalog) {
            const auto array = &QJsonArray::fromStringList;
            QStringList roots = c.roots;
            roots.replaceInStrings(m_directory->path(), QString());
            roots.removeIf([&](auto& root) { return root.startsWith(QLatin1String(directory)); });
            if (!roots.isEmpty()) {
                rows.append(QJsonArray{c.id, c.name, c.description, int(c.group), int(c.safety),
                                       array(roots), array(c.patterns), array(c.guardProcesses)});
            }
        }
        return QString::fromUtf8(QJsonDocument(rows).toJson(QJsonDocument::Compact));
    }

    /// Runs process() on a thread; what the scanner told, in order. It is cancelled while it tells
    /// of category `cancelAt`.
    static QStringList processed(JunkScanner& scanner, int cancelAt = -1)
    {
        const QObject here;
        QStringList told;
        const auto hear = [&](auto signal, auto slot) {
            connect(&scanner, signal, &here, slot, Qt::DirectConnection);
        };
        hear(&JunkScanner::progress, [&](const QString& name, int i, int all) {
            told.append(u"%1 %2/%3"_s.arg(name, QString::number(i), QString::number(all)));
            if (i == cancelAt)
                scanner.cancel();
        });
        hear(&JunkScanner::cancelled, [&] { told.append(u"cancelled"_s); });
        hear(&JunkScanner::finished, [&](const QList<JunkItem>& items, qint64 total) {
            for (const JunkItem& item : items)
                told.append(item.id + u' ' + item.sizeDisplay());
            told.append(QString::number(total));
        });
        std::thread([&] {
            QMetaObject::invokeMethod(&scanner, "process", Qt::DirectConnection);
        }).join();
        return told;
    }

private Q_SLOTS:
    void init()
    {
        QDir::setCurrent(QDir::rootPath()); // Windows removes no current directory.
        m_directory.emplace();
    }

    void catalog()
    {
        if (!canMoveHome())
            QSKIP("the home is the account's here, whatever the environment says");
        set("TMPDIR", "/temp");
        const QList<std::array<const char*, 3>> places{{"LOCALAPPDATA", "//local/./", "/local"},
                                                       {"APPDATA", "/x/../roaming", "/roaming"},
                                                       {"SystemRoot", "/windows", "/windows"},
                                                       {"ProgramData", "/data/", "/data"}};
        for (const auto& [variable, value, directory] : places)
            set(variable, value);
        QCOMPARE(text(knownJunkCategories()), u"[]"_s);

        // No root are a file, a profile without a cache and a hidden one.
        for (const QString& row : test::rows(R"(
            : x/|temp/
            windows: Temp/|Logs/|System32/LogFiles/|SoftwareDistribution/Download/|Prefetch/
            windows: Minidump/|LiveKernelReports/
            data: Microsoft/Windows/WER/|Microsoft/Windows/DeliveryOptimization/Cache/
            data: NVIDIA Corporation/NV_Cache/
            roaming: npm-cache/|Code/Cache/|Code/CachedData/|Code/logs/
            home: .gradle/caches/|.cargo/registry/cache/|.cache/|.m2/repository/
            home: .nuget/packages/|.conda/pkgs/|go/pkg/mod/cache/download/
            local: CrashDumps/|D3DSCache/|NVIDIA/DXCache/|NVIDIA/GLCache/|FontCache=1|npm-cache/
            local: pip/cache/|Yarn/Cache/|uv/cache/|JetBrains/|go-build/
            local/Microsoft/Windows: WER/|INetCache/|Explorer/
            local/Google/Chrome/User Data/Default: Cache/|Code Cache/|GPUCache/
            local/Google/Chrome/User Data/Default: Service Worker/CacheStorage/
            local/Microsoft/Edge/User Data/Default: Cache/|Code Cache/|GPUCache/
            local/Microsoft/Edge/User Data/Default: Service Worker/CacheStorage/
            local/Mozilla/Firefox/Profiles: a/cache2/|b/|.c/cache2/|d=1)"))
            test::makeTree(m_directory->filePath(row.section(u": "_s, 0, 0)),
                           row.section(u": "_s, 1));
        const QList<JunkCategory> all = knownJunkCategories();
        QCOMPARE(all.size(), 30);
        QVERIFY(test::isAgreedOn(
            text(all), "07f3cf30b93a946761dbbc45070a31a575e8b4f2a368c0dbe04d57245b014bc2"));

        for (const auto& [variable, value, directory] : places) {
            qunsetenv(variable);
            QCOMPARE(text(knownJunkCategories()), text(all, directory));
            set(variable, "/absent");
            set("windir", "/windows");
            QCOMPARE(text(knownJunkCategories()), text(all, directory));
            set(variable, value);
            qunsetenv("SystemRoot"); // "windir" stands in.
            QCOMPARE(text(knownJunkCategories()), text(all));
            set("SystemRoot", "/windows");
            qunsetenv("windir");
        }
        for (const auto& [variable, value, directory] : places)
            qunsetenv(variable);
        set("TMPDIR", "/absent");
        QCOMPARE(knownJunkCategories().size(), 7);
    }

    void categories()
    {
        // A tree, and what is found of it, by a pattern after "->": paths; files and bytes. The
        // tree goes on in the lines that begin with a bar.
        QString tree;
        int leftOut = 0;
        for (const QString& line : test::rows(R"(
            r/a.tmp=10|r/d/x/y/1=5|r/d/x/y/2=5 => a.tmp d; 3 20
            r/ => ; 0 0
            r/d/e/|r/f/ => d f; 0 0
            r/.f=1|r/.d/.f=2 => .d .f; 2 3
            out/f=7|out/d/f=8|r/file>../out/f|r/d/file>../../out/f|r/d/dir>../../out|r/absent>x
                => absent d file; 3 14
            out/f=7|out/d/f=8|r/dir>../out => dir; 2 15
            other/f=7|out/f=8|r>out|file=9 => f other/f; 2 15
            r/a\b=1|r/..\..\c=2|r/d/e\f=4 => d; 3 7
            r/f=1 -> ; 0 0
            r/Thumbcache_1024.DB=1|r/thumbcache_1024.db.bak=2|r/xthumbcache_1024.db=4
                |r/.d/iconcache_3.db=8|r/iconcache_32.db=16|r/iconcache_.db=32|r/iconcache_ .db=128
                |r/thumbcache_d.db/f=64
                -> .d/iconcache_3.db Thumbcache_1024.DB iconcache_ .db; 3 137
            out/thumbcache_.db=3|other/d/thumbcache_2.db=1|r/a\thumbcache_.db=0|r/thumbcache_\.db=4
                |r/dir>../out|r/thumbcache_1.db>../out/thumbcache_.db
                -> other/d/thumbcache_2.db thumbcache_1.db; 3 8)")) {
            tree += line;
            const qsizetype end = tree.indexOf(u"> "_s);
            if (end < 0)
                continue;
            // Windows has no such names, and the links that a test may make there are files.
            if (!test::hasPosixFiles() &&
                tree.left(end - 1).contains(QRegularExpression(u"[\\\\>]|_ "_s))) {
                leftOut += int(!std::exchange(tree, {}).isEmpty());
                continue;
            }
            const QString expected = tree.mid(end + 2);
            init();
            test::makeTree(m_directory->path(), tree.left(end - 1).trimmed().replace(u' ', u'\n'));
            QVERIFY(QDir::setCurrent(m_directory->path()));
            JunkCategory category; // Relative roots make absolute paths.
            category.roots = u"r absent file other "_s.split(u' ');
            if (tree.at(end - 1) == u'-') {
                category.patterns = QStringList{u"thumbcache_*.db"_s, u"*cache_?.db"_s};
                category.roots.replaceInStrings(QRegularExpression(u"^(?=.)"_s),
                                                m_directory->path() + u'/');
            }
            JunkItem item = JunkScanner::scanCategory(category, nullptr);
            item.paths.replaceInStrings(m_directory->filePath(u"r/"_s), QString());
            item.paths.replaceInStrings(m_directory->path() + u'/', QString());
            item.paths.sort();
            QCOMPARE(u"%1; %2 %3"_s
                         .arg(item.paths.join(u' '), QString::number(item.fileCount),
                              QString::number(item.sizeBytes))
                         .replace(u'\n', u' '),
                     expected);
            const std::atomic<bool> cancel = true;
            QCOMPARE(JunkScanner::scanCategory(category, &cancel).fileCount, 0);
            tree.clear();
        }
        if (leftOut > 0)
            QSKIP(
                qPrintable(u"all but %1 rows of names or links that Windows lacks"_s.arg(leftOut)));
    }

    void cancellationWithinACategory()
    {
        constexpr int files = 1000;
        for (int i = 0; i < files; ++i)
            test::makeTree(m_directory->path(), u"entries/%1=1|files/d/%1=1"_s.arg(i));
        JunkCategory scanned;
        for (const auto& [root, pattern] :
             {std::pair("entries", ""), {"files", ""}, {"files", "*"}}) {
            scanned.roots = {m_directory->filePath(QString::fromUtf8(root))};
            scanned.patterns = QString::fromUtf8(pattern).split(u' ', Qt::SkipEmptyParts);
            int counted = 0;
            for (int round = 0; round < 500 && (counted == 0 || counted == files); ++round) {
                std::atomic<bool> cancel = false;
                std::thread canceller([&cancel, round] {
                    QThread::usleep(QRandomGenerator::global()->bounded(1U + round * 50U));
                    cancel = true;
                });
                counted = JunkScanner::scanCategory(scanned, &cancel).fileCount;
                canceller.join();
            }
            QVERIFY2(counted > 0 && counted < files, "no scan ended in its midst");
        }
    }

    void wholeCatalogOnAThread()
    {
        for (const char* name : {"LOCALAPPDATA", "APPDATA", "SystemRoot", "windir", "ProgramData"})
            set(name, "/app");
        if (!canMoveHome())
            QSKIP("the home is the account's here, whatever the environment says");
        set("TMPDIR", "/temp");
        test::makeTree(
            m_directory->path(),
            u"temp/1=1048576|app/CrashDumps/1=3145728|app/Logs/d/|app/pip/cache/1=4194304|"
            "app/Mozilla/Firefox/Profiles/p/cache2/1=1048576|home/.cache/1=5242880"_s);
        const QStringList progress =
            u"用户临时文件 1/6|崩溃转储文件 2/6|系统日志文件 3/6|"
            "Firefox 缓存 4/6|pip 缓存 5/6|通用 .cache 缓存 6/6"_s.split(u'|');
        const QStringList results = u"crash_dumps 3.0 MB|user_temp 1.0 MB|firefox_cache 1.0 MB|"
                                    "generic_cache 5.0 MB|pip_cache 4.0 MB|14680064"_s.split(u'|');
        JunkScanner uncancelled;
        QCOMPARE(processed(uncancelled), progress + results);
        QCOMPARE(processed(uncancelled), progress + results);
        JunkItem item;
        item.sizeBytes = 1;
        QCOMPARE(JunkItem().sizeDisplay() + item.sizeDisplay(), u"0 MB0.0 MB"_s);

        for (int category = 0; category <= progress.size(); ++category) {
            JunkScanner scanner;
            if (category == 0)
                scanner.cancel();
            QCOMPARE(processed(scanner, category), progress.mid(0, category) << u"cancelled"_s);
            QCOMPARE(processed(scanner), QStringList(u"cancelled"_s));
        }
    }

    void guards()
    {
        auto& processes = fake::platform().processes;
        QCOMPARE(JunkScanner::runningGuardProcesses({}), QStringList());
        QCOMPARE(processes.calls, 0);
        processes.records = {{1, 0, u"chrome.exe"_s, {}, 0, 0}, {2, 0, u"FireFox.EXE"_s, {}, 0, 0}};
        QCOMPARE(JunkScanner::runningGuardProcesses(
                     {u"firefox.exe"_s, u"msedge.exe"_s, u"chrome"_s, u"Chrome.exe"_s}),
                 (QStringList{u"firefox.exe"_s, u"Chrome.exe"_s}));
    }
};

QTEST_GUILESS_MAIN(JunkTest)
#include "tst_junk.moc"
