// Tests of the junk scanner on directories made for the test, on threads as its users run it.
#include "base/byte_size.h"
#include "core/junk_scanner.h"
#include "fake/fake_platform.h"
#include "support/file_tree.h"
#include "support/json.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <limits>
#include <memory>
#include <thread>

using namespace korvane;
using namespace Qt::StringLiterals;

class JunkScannerTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_directory;

    JunkCategory category(const QStringList& roots, const QStringList& patterns = {}) const
    {
        JunkCategory category;
        for (const QString& root : roots)
            category.roots.append(m_directory->filePath(root));
        category.patterns = patterns;
        return category;
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
                told.append(u"%1 %2"_s.arg(item.id, item.sizeDisplay()));
            told.append(QString::number(total));
        });
        std::thread([&scanner] {
            QMetaObject::invokeMethod(&scanner, "process", Qt::DirectConnection);
        }).join();
        return told;
    }

private Q_SLOTS:
    void init()
    {
        fake::reset();
        m_directory = std::make_unique<QTemporaryDir>();
    }

    void categories_data()
    {
        QTest::addColumn<QString>("tree"); // In several lines where it begins with a bar.
        QTest::addColumn<bool>("byPattern");
        QTest::addColumn<QString>("expected"); // Paths; files and bytes.
        QString tree;
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
            const bool byPattern = tree.contains(u"-> "_s);
            const qsizetype end = tree.indexOf(u"> "_s);
            if (end < 0)
                continue;
            QTest::newRow(qPrintable(tree)) << tree.left(end - 1).trimmed().replace(u' ', u'\n')
                                            << byPattern << tree.mid(end + 2);
            tree.clear();
        }
    }
    void categories()
    {
        QFETCH(QString, tree);
        QFETCH(bool, byPattern);
        test::makeTree(m_directory->path(), tree);
        QVERIFY(QDir::setCurrent(m_directory->path()));
        JunkCategory roots = category({u"r"_s, u"absent"_s, u"file"_s, u"other"_s});
        if (byPattern)
            roots.patterns = QStringList{u"thumbcache_*.db"_s, u"*cache_?.db"_s};
        else // Relative roots make absolute paths.
            roots.roots.replaceInStrings(m_directory->path() + u'/', QString());
        roots.roots.append(QString());
        JunkItem item = JunkScanner::scanCategory(roots, nullptr);
        item.paths.replaceInStrings(m_directory->filePath(u"r/"_s), QString());
        item.paths.replaceInStrings(m_directory->path() + u'/', QString());
        item.paths.sort();
        QTEST(u"%1; %2 %3"_s
                  .arg(item.paths.join(u' '), QString::number(item.fileCount),
                       QString::number(item.sizeBytes))
                  .replace(u'\n', u' '),
              "expected");
        const std::atomic<bool> cancel = true;
        QCOMPARE(JunkScanner::scanCategory(roots, &cancel).fileCount, 0);
    }

    void cancellationWithinACategory()
    {
        constexpr int files = 1000;
        for (int i = 0; i < files; ++i)
            test::makeTree(m_directory->path(), u"entries/%1=1|files/d/%1=1"_s.arg(i));
        for (const JunkCategory& scanned :
             {category({u"entries"_s}), category({u"files"_s}), category({u"files"_s}, {u"*"_s})}) {
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
            qputenv(name, m_directory->filePath(u"app"_s).toUtf8());
        qputenv("HOME", m_directory->filePath(u"home"_s).toUtf8());
        qputenv("TMPDIR", m_directory->filePath(u"temp"_s).toUtf8());
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
        processes.records = {{1, 0, u"chrome.exe"_s, {}, 0, 0}, {2, 0, u"FireFox.EXE"_s, {}, 0, 0}};
        QCOMPARE(JunkScanner::runningGuardProcesses({}), QStringList());
        QCOMPARE(processes.calls, 0);
        QCOMPARE(JunkScanner::runningGuardProcesses(
                     {u"firefox.exe"_s, u"msedge.exe"_s, u"chrome"_s, u"Chrome.exe"_s}),
                 (QStringList{u"firefox.exe"_s, u"Chrome.exe"_s}));
    }

    void sizes()
    {
        constexpr qint64 largest = std::numeric_limits<qint64>::max();
        QString texts;
        for (const qint64 bytes :
             {-1LL, 0LL, 1LL, 3670016LL, 262144000LL, 1073741823LL, 1342177280LL, largest}) {
            JunkItem item;
            item.sizeBytes = bytes;
            texts += item.sizeDisplay() + u", "_s;
        }
        QCOMPARE(texts,
                 u"0 MB, 0 MB, 0.0 MB, 3.5 MB, 250 MB, 1024 MB, 1.25 GB, 8589934592.00 GB, ");
        QCOMPARE(sizeSum(largest - 1, 1), largest);
        QCOMPARE(sizeSum(largest, largest), largest);
    }
};

QTEST_GUILESS_MAIN(JunkScannerTest)
#include "tst_junk_scanner.moc"
