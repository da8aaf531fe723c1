// Tests the recycle bin by what is in it, and what stays where it was.
#include "platform/paths.h"
#include "platform/recycle_bin.h"
#include "platform/windows/recycle_bin/delete_sink.h"
#include "platform/windows/recycle_bin/examined_entry.h"
#include "support/file_walk.h"
#include "support/windows.h"

#include <QThread>

#include <optional>

#include <shellapi.h>
#include <sherrors.h>
#include <shlobj.h>

using namespace korvane;
using namespace windows_platform;
using namespace Qt::StringLiterals;
using platform::moveToRecycleBin;

namespace {

/// The entries in the bin, of all drives.
qint64 inBin()
{
    SHQUERYRBINFO info{};
    info.cbSize = sizeof(info);
    return SUCCEEDED(SHQueryRecycleBinW(nullptr, &info)) ? info.i64NumItems : -1;
}

/// All in the directory, as the walk shows it.
QStringList listing(const QString& directory)
{
    return test::shown(platform::walkEntries, directory);
}

} // namespace

class WindowsRecycleBinTest : public QObject
{
    Q_OBJECT

    std::optional<QTemporaryDir> m_directory;
    QTemporaryDir m_data; ///< Where Wine's bin is.

    QString at(const QString& name) const { return m_directory->filePath(name); }

private Q_SLOTS:
    void initTestCase()
    {
        if (!test::isWine)
            return;
        // The child's bin has a home that is none of Wine's; silenced, the shell would delete for good.
        m_directory.emplace();
        test::makeTree(m_directory->path(), u"f=1"_s);
        qputenv("XDG_DATA_HOME", "C:\\");
        QCOMPARE(QProcess::execute(QCoreApplication::applicationFilePath(), {at(u"f"_s)}), 1);
        QVERIFY(QFile::exists(at(u"f"_s)));
        qputenv("XDG_DATA_HOME", test::unixName(m_data.path()).toUtf8());
    }

    void init() { m_directory.emplace(); }

    void sink()
    {
        // P asks to delete where the bin can take it, X where it cannot; R is told as recycled, D as
        // deleted, I as ignored, F as failed. After it: what each was answered (1: go on), recycled,
        // deleted, refused, failed.
        const test::Cases<const char*> cases{{"PR", "1 1 0 0 0"},      {"X", "0 0 0 1 0"},
                                             {"PRXP", "100 1 0 1 0"},  {"PFP", "10 0 0 0 1"},
                                             {"PD", "1 0 1 0 0"},      {"PI", "1 0 0 0 0"},
                                             {"PRPRPF", "111 2 0 0 1"}};
        const ComApartment apartment;
        const auto item = comResult<IShellItem>([](IShellItem** made) {
            return SHCreateItemFromParsingName(L"C:\\", nullptr, __uuidof(IShellItem),
                                               reinterpret_cast<void**>(made));
        });
        constexpr DWORD noise = TSF_COPY_LOCALIZED_NAME | TSF_NORMAL;
        for (const auto& [calls, expected] : cases) {
            const auto sink = DeleteSink::make();
            QString seen;
            for (const char* call = calls; *call != '\0'; ++call) {
                if (*call == 'P' || *call == 'X') {
                    const DWORD flag = *call == 'P' ? DWORD{TSF_DELETE_RECYCLE_IF_POSSIBLE} : 0;
                    const HRESULT answer = sink->PreDeleteItem(flag | noise, item.get());
                    seen += SUCCEEDED(answer) ? u'1' : u'0';
                    continue;
                }
                const HRESULT result = *call == 'F'   ? COPYENGINE_E_SHARING_VIOLATION_SRC
                                       : *call == 'I' ? COPYENGINE_S_USER_IGNORED
                                                      : COPYENGINE_S_DONT_PROCESS_CHILDREN;
                sink->PostDeleteItem(0, item.get(), result, *call == 'R' ? item.get() : nullptr);
            }
            seen += u" %1 %2 %3 %4"_s.arg(sink->recycled())
                        .arg(sink->deleted())
                        .arg(sink->hasRefused())
                        .arg(FAILED(sink->error()));
            QCOMPARE(QString::fromLatin1(calls) + u' ' + seen,
                     QString::fromLatin1(calls) + u' ' + QString::fromLatin1(expected));
        }

        auto sink = DeleteSink::make();
        void* object = nullptr;
        QCOMPARE(sink->QueryInterface(__uuidof(IShellItem), &object), E_NOINTERFACE);
        QCOMPARE(sink->QueryInterface(__uuidof(IFileOperationProgressSink), &object), S_OK);
        sink.reset(); // The other reference keeps it.
        QCOMPARE(static_cast<IFileOperationProgressSink*>(object)->Release(), 0U);
    }

    void moves()
    {
        test::makeTree(m_directory->path(),
                       u"a file.tmp=10|中文 %1=3|.hidden=1|empty/|d/e/f=5|d/g=7|read only=2"_s);
        const QString readOnly = at(u"read only"_s);
        SetFileAttributesW(wide(readOnly), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
        const qint64 binned = std::max<qint64>(inBin(), 0);
        QStringList paths{at(u"gone"_s)};
        const auto all = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;
        for (const QString& name : QDir(m_directory->path()).entryList(all))
            paths += at(name);
        paths.last() = QDir::toNativeSeparators(paths.last());
        const OpResult result = moveToRecycleBin(paths);
        QCOMPARE(result.message, u"已移到回收站 6 项"_s);
        QVERIFY(result.ok);
        QCOMPARE(listing(m_directory->path()), QStringList());
        QCOMPARE(inBin(), binned + 6);
        QCOMPARE(moveToRecycleBin(paths).message, u"没有需要移动的内容 (可能已被删除)"_s);
    }

    // Never what they lead to.
    void links()
    {
        test::makeTree(m_directory->path(), u"there/f=1|here/"_s);
        for (const QString& target : {u"there"_s, u"there/f"_s}) {
            const QString link = at(u"here/"_s + target.section(u'/', -1));
            if (!test::makeLink(link, u"../"_s + target, target == u"there"))
                QSKIP("no links can be made here");
            // Wine's bin takes no link: it would take the target.
            QCOMPARE(moveToRecycleBin({link}).message,
                     test::isWine ? u"没有内容被移到回收站, 跳过 1 项 (是链接 1)"_s
                                  : u"已移到回收站 1 项"_s);
            QCOMPARE(QFileInfo::exists(link), test::isWine);
            QVERIFY(QFile::exists(at(u"there/f"_s)));
        }
    }

    void stays()
    {
        test::makeTree(m_directory->path(), u"held=1|d/e/held=1|d/other=2|d/e/third=3|free=4"_s);
        const QString program = at(u"running.exe"_s);
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), program));
        QProcess running;
        running.start(program, {u"wait"_s});
        QVERIFY(running.waitForStarted());
        const UniqueHandle held = test::open(at(u"held"_s), GENERIC_READ, FILE_SHARE_READ);
        UniqueHandle deep = test::open(at(u"d/e/held"_s), GENERIC_READ, FILE_SHARE_READ);
        QVERIFY(held && deep);
        const QStringList before = listing(m_directory->path());
        const auto why = [](const QString& path) {
            const OpResult result = moveToRecycleBin({path});
            const QString because = result.message.section(u'(', 1).section(u' ', 0, -2);
            return result.ok ? u"moved"_s : because;
        };
        const QString drive = m_directory->path().first(3);
        for (const QString& path : {at(u"held"_s), at(u"d"_s), program})
            QCOMPARE(path + why(path), path + u"正在使用"_s);
        for (const QString& path : {u"free"_s, QString(), drive, at(u"free."_s), at(u"free "_s),
                                    at(u"x/../free"_s), at(u"free:s"_s), at(u"nul"_s),
                                    at(u"fre?"_s), uR"(\\host\x\free)"_s, uR"(\\.\pipe\x)"_s})
            QCOMPARE(path + why(path), path + u"路径无效"_s);
        QCOMPARE(why(at(QString(230, u'x'))), u"路径过长"_s);
        const QString home = QDir::homePath();
        for (const QString& path : {QDir::tempPath(), home, home.section(u'/', 0, -2),
                                    qEnvironmentVariable("SystemRoot"), QDir::currentPath()})
            QCOMPARE(path + why(path), path + u"系统保留"_s);
        QCOMPARE(listing(m_directory->path()), before);
        running.kill();
        QVERIFY(running.waitForFinished());
        deep.reset();
        const QStringList both{at(u"held"_s), at(u"d"_s), at(u"free"_s)};
        QCOMPARE(moveToRecycleBin(both).message, u"已移到回收站 2 项, 跳过 1 项 (正在使用 1)"_s);
    }

    // Last, as it changes where things are. What the tools list is what can be moved, in whatever
    // case a directory is named.
    void junk()
    {
        test::makeTree(m_directory->path(), u"crashdumps/a.dmp=3|crashdumps/d/b.dmp=4"_s);
        for (const char* name : {"LOCALAPPDATA", "APPDATA", "SystemRoot", "windir", "ProgramData"})
            qputenv(name, QDir::toNativeSeparators(m_directory->path()).toUtf8());
        qputenv("TMP", "C:\\absent");
        test::Client client;
        const auto found = [&client] {
            return client.call(u"scan_junk"_s).json()["categories"_L1][0].toObject();
        };
        const QJsonObject category = found();
        QCOMPARE(category["category_id"_L1], u"crash_dumps"_s);
        QCOMPARE(category["size_bytes"_L1], 7);
        QStringList paths = category["sample_paths"_L1].toVariant().toStringList();
        paths.sort();
        QCOMPARE(paths, (QStringList{at(u"CrashDumps/a.dmp"_s), at(u"CrashDumps/d"_s)}));
        QCOMPARE(moveToRecycleBin(paths).message, u"已移到回收站 2 项"_s);
        QCOMPARE(found(), QJsonObject());
    }
};

/// With a path moves that; a copy of the program, told to wait, is one that runs.
int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QString argument = application.arguments().value(1);
    if (argument == "wait"_L1)
        QThread::sleep(30);
    if (argument.contains(u':'))
        return moveToRecycleBin({argument}).ok ? 0 : 1;
    WindowsRecycleBinTest test;
    return argument == "wait"_L1 ? 0 : QTest::qExec(&test, argc, argv);
}

#include "tst_windows_recycle_bin.moc"
