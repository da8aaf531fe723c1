// Tests of the tools that look through disks as a client sees them, on directories of its own.
#include "core/signatures.h"
#include "fake/fake_platform.h"
#include "support/file_tree.h"
#include "support/mcp_client.h"

#include <QTemporaryDir>
#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class DiskToolsTest : public QObject
{
    Q_OBJECT

    test::Client m_client;
    QTemporaryDir m_directory;
    QStringList m_progress;
    ProgressCallback m_keepProgress = [this](const QJsonObject& told) {
        m_progress.append(text(told));
    };

    /// DIR stands for the test's directory.
    QString named(QString text) const { return text.replace(m_directory.path(), u"DIR"_s); }
    QString text(const QJsonObject& object) const { return named(test::text(object)); }
    QJsonObject parsed(QString json) const
    {
        return test::json(json.replace(u"DIR"_s, m_directory.path()));
    }

private Q_SLOTS:
    void init() { m_progress.clear(); }

    void junk()
    {
        for (const char* name : {"LOCALAPPDATA", "APPDATA", "SystemRoot", "windir", "ProgramData"})
            qputenv(name, m_directory.filePath(u"app"_s).toUtf8());
        for (const char* name : {"HOME", "TMPDIR", "TMP"})
            qputenv(name, m_directory.filePath(u"absent"_s).toUtf8());
        test::makeTree(m_directory.filePath(u"app"_s),
                       u"CrashDumps/1.dmp=1321206|Logs/1=1|Logs/2=1|Logs/3=1|Logs/4=1|Logs/5=1|"
                       "Logs/d/6=1|FontCache/empty/|Prefetch/a=41943|pip/cache/1=52429|"
                       "Mozilla/Firefox/Profiles/p/cache2/e/1=10"_s);
        QJsonObject found = m_client.call(u"scan_junk"_s, {}, m_keepProgress).json();
        QCOMPARE(m_client.call(u"scan_junk"_s, {{u"foo"_s, 1}}).json(), found);
        QStringList all;
        const QJsonArray categories = found.take(u"categories"_s).toArray();
        for (const QJsonValue category : categories) {
            for (const auto key : {"category_id"_L1, "group"_L1, "safety"_L1})
                all.append(category[key].toString());
            all.append(QString::number(category["file_count"_L1].toInt()));
            all.append(QString::number(category["sample_paths"_L1].toArray().size()));
        }
        QCOMPARE(all.join(u' '), u"crash_dumps system safe 1 1 windows_logs system safe 6 5 "
                                 "prefetch system caution 1 1 firefox_cache browser safe 1 1 "
                                 "pip_cache devtools safe 1 1"_s);
        QCOMPARE(text(categories[0].toObject()),
                 u"{`category_id`:`crash_dumps`,`category_name`:`崩溃转储文件`,"
                 "`description`:`程序崩溃时生成的 .dmp 转储, 排障后即可删除`,`file_count`:1,"
                 "`group`:`system`,`safety`:`safe`,`sample_paths`:[`DIR/app/CrashDumps/1.dmp`],"
                 "`size_bytes`:1321206,`size_mb`:1.3}"_s);
        QCOMPARE(text(found),
                 u"{`category_count`:5,`note`:`清理用 clean_junk 传 category_ids[]; 那是写操作, "
                 "执行前会在 Korvane 主程序弹窗请求授权。safety=caution 的分类(更新缓存/"
                 "Prefetch)建议先向用户说明副作用再清。`,`total_file_count`:10,"
                 "`total_size_bytes`:1415594,`total_size_mb`:1.4}"_s);
        QCOMPARE(m_progress.size(), 6);
        QCOMPARE(m_progress[1], u"{`index`:2,`scanning_category`:`系统日志文件`,`total`:6}"_s);
    }

    void largeFiles()
    {
        const QString home = m_directory.filePath(u"home"_s);
        qputenv("HOME", home.toUtf8());
        if (QDir::homePath() != home)
            QSKIP("the home is the account's here, whatever the environment says");
        test::makeTree(
            m_directory.path(),
            u"link>home|out/f=99999999|home/exact=52428800|home/less=52428799|home/small=1|"
            "home/.hidden=62914560|home/.d/e/deep=73400320|home/dir>../out|home/x>x"_s);
        QDir::setCurrent(home);
        // Arguments => the smallest size; files scanned; sizes found.
        const QStringList cases = test::rows(R"(
            `x`:1|`root_path`:5|`root_path`:null|`root_path`:`DIR/home`|`root_path`:`DIR/home/`
            |`root_path`:`../home`|`root_path`:``|`root_path`:`DIR/link`|`min_size_bytes`:0
            |`min_size_bytes`:-5|`min_size_bytes`:`x`|`min_size_bytes`:1e300|`max_results`:3
            |`max_results`:`1`|`max_results`:1.5|`max_results`:1e300
            |`max_results`:9223372036854775807|`max_results`:4294967297
            |=> 52428800; 6; 73400320 62914560 52428800
            `min_size_bytes`:52428799|`min_size_bytes`:`52428799`
            |=> 52428799; 6; 73400320 62914560 52428800 52428799
            `min_size_bytes`:1,`max_results`:2|=> 1; 6; 73400320 62914560
            `max_results`:0|`max_results`:-9223372036854775807|=> 52428800; 6;
            `root_path`:`DIR/absent %1`|=> 路径不存在: DIR/absent %1
            `root_path`:`DIR/home/small`|=> 路径不存在: DIR/home/small
            `root_path`:` `|=> 路径不存在:  )");
        for (const QString& row : cases.join(u'\n').replace(u"\n|"_s, u"|"_s).split(u'\n')) {
            QStringList arguments = row.split(u'|');
            const QString expected = arguments.takeLast();
            for (const QString& argument : arguments) {
                const QJsonObject args = parsed(u'{' + argument + u'}');
                const test::ToolReply reply = m_client.call(u"find_large_files"_s, args);
                const QJsonObject result = reply.json();
                QString seen = u"=> "_s + result[u"min_size_bytes"_s].toVariant().toString() +
                               u"; "_s + result[u"scanned_files"_s].toVariant().toString() + u';';
                for (const QJsonValue file : result[u"files"_s].toArray()) {
                    const qint64 size = file[u"size_bytes"_s].toInteger();
                    QCOMPARE(QFileInfo(file[u"path"_s].toString()).size(), size);
                    seen += u' ' + QString::number(size);
                }
                if (reply.isError)
                    seen = named(u"=> "_s + reply.text.section(u" failed: "_s, 1)).trimmed();
                QCOMPARE(argument + seen, argument + expected);
                QCOMPARE(result[u"root_path"_s].toString(home),
                         reply.isError ? home : args[u"root_path"_s].toString(home));
            }
        }
    }

    void largestOfManyFiles()
    {
        constexpr int files = 1499;
        for (int i = 0; i < files; ++i) // 37 and 1499 share no factor: each size once.
            test::makeTree(m_directory.filePath(u"many\\files"_s),
                           u"d%1/%2=%3"_s.arg(i % 7).arg(i).arg((i * 37) % files * 1000));
        QJsonObject args =
            parsed(u"{`root_path`:`DIR/many\\\\files`,`min_size_bytes`:1,`max_results`:10}"_s);
        const QJsonObject result =
            m_client.call(u"find_large_files"_s, args, m_keepProgress).json();
        QCOMPARE(m_client.call(u"find_large_files"_s, args).json(), result);
        QCOMPARE(result[u"scanned_files"_s].toInt(), files);
        QCOMPARE(result[u"hit_count"_s].toInt(), 10);
        for (int i = 0; i < 10; ++i) {
            QJsonObject file = result[u"files"_s][i].toObject();
            QVERIFY(named(file.take(u"path"_s).toString()).startsWith(u"DIR/many/files/d"_s));
            QCOMPARE(text(file), u"{`size_bytes`:%1,`size_mb`:1.4}"_s.arg((files - 1 - i) * 1000));
        }

        // A selection leaves 10 at each 200th from the 210th on; the one empty file may come first.
        QCOMPARE(m_progress.size(), 2);
        for (int i = 0; i < 2; ++i) {
            QJsonObject told = parsed(m_progress[i]);
            const int hits = told.take(u"current_hits"_s).toInt();
            QVERIFY(hits == 100 * (i + 1) || hits == 100 * (i + 1) - 1);
            QVERIFY(told.take(u"current_path"_s).toString().contains(u"/many/files/d"_s));
            QCOMPARE(text(told), u"{`scanned_files`:%1}"_s.arg(500 * (i + 1)));
        }
        args.insert(u"max_results"_s, 9e18);
        args.insert(u"min_size_bytes"_s, 1000);
        QCOMPARE(m_client.call(u"find_large_files"_s, args).json()[u"hit_count"_s].toInt(), 1498);
    }

    void pathsOnOtherMachines()
    {
        const QString there = m_directory.filePath(u"there"_s);
        test::makeTree(there, u"f=60000000|CrashDumps/f=1|Mozilla/Firefox/Profiles/p/cache2/f=1"_s);
        for (const char* name : {"LOCALAPPDATA", "APPDATA", "SystemRoot", "windir", "ProgramData"})
            qputenv(name, there.toUtf8());
        for (const char* name : {"HOME", "TMPDIR", "TMP"})
            qputenv(name, m_directory.filePath(u"absent"_s).toUtf8());
        fake::Platform& script = fake::platform();
        script.signatures.insert(there + u"/f"_s, SignatureStatus::Trusted);
        const auto look = [&](const QString& elsewhere) {
            script.elsewhere = elsewhere;
            const auto call = [this](const QString& tool, const QString& args, const QString& key) {
                const test::ToolReply reply = m_client.call(tool, parsed(u'{' + args + u'}'));
                return u"; "_s + (reply.isError ? named(reply.text).section(u" failed: "_s, 1)
                                                : reply.json()[key].toVariant().toString());
            };
            return call(u"find_large_files"_s, u"`root_path`:`DIR/there`"_s, u"hit_count"_s) +
                   call(u"unlock_file"_s, u"`path`:` DIR/there/f `"_s, u"unlocked"_s) +
                   call(u"verify_signatures"_s, u"`paths`:[`DIR/there/f`]"_s, u"unknown"_s) +
                   call(u"scan_junk"_s, {}, u"category_count"_s);
        };
        QCOMPARE(look(there), u"; 路径不存在: DIR/there; 路径不存在: DIR/there/f; 1; 0"_s);
        QVERIFY(script.probed.isEmpty() && script.verified.isEmpty());
        Singleton<SignatureService>::instance().clearCache();
        QCOMPARE(look({}), u"; 1; true; 0; 2"_s);
    }
};

QTEST_GUILESS_MAIN(DiskToolsTest)
#include "tst_disk_tools.moc"
