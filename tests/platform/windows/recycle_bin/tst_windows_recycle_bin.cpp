// Tests the recycle bin by what is in it, and what stays where it was.
#include "platform/paths.h"
#include "platform/recycle_bin.h"
#include "platform/windows/recycle_bin/delete_sink.h"
#include "platform/windows/recycle_bin/examined_entry.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/system_library.h"
#include "platform/windows/sys/text.h"
#include "support/file_tree.h"
#include "support/mcp_client.h"
#include "support/table.h"

#include <QDirIterator>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QUrl>

#include <optional>

#include <shellapi.h>
#include <sherrors.h>
#include <shlobj.h>

using namespace korvane;
using namespace windows_platform;
using namespace Qt::StringLiterals;
using platform::moveToRecycleBin;

namespace {

const bool isWine = qEnvironmentVariableIsSet("WINECONFIGDIR");

/// What the system below Wine calls the path.
QString unixName(const QString& path)
{
    using UnixName = char* (*)(const wchar_t*);
    const auto name = reinterpret_cast<UnixName>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"kernel32"), "wine_get_unix_file_name")));
    return QString::fromUtf8(name(wide(QDir::toNativeSeparators(path))));
}

/// The entries in the bin, of all drives.
qint64 inBin()
{
    SHQUERYRBINFO info{};
    info.cbSize = sizeof(info);
    return SUCCEEDED(SHQueryRecycleBinW(nullptr, &info)) ? info.i64NumItems : -1;
}

/// An open file that others may read, and not delete.
UniqueHandle hold(const QString& path)
{
    return owned(CreateFileW(wide(extendedPath(path)), GENERIC_READ, FILE_SHARE_READ, nullptr,
                             OPEN_EXISTING, 0, nullptr));
}

/// Names and sizes of all at and below the directory.
QStringList listing(const QString& directory)
{
    QStringList entries;
    QDirIterator all(directory, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                     QDirIterator::Subdirectories);
    while (all.hasNext()) {
        const QFileInfo entry(all.next());
        entries += all.filePath().sliced(directory.size()) + u'=' + QString::number(entry.size());
    }
    entries.sort();
    return entries;
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
        if (!isWine)
            return;
        // The child's bin has a home that is none of Wine's; silenced, the shell would delete for good.
        m_directory.emplace();
        test::makeTree(m_directory->path(), u"f=1"_s);
        qputenv("XDG_DATA_HOME", "C:\\");
        QCOMPARE(QProcess::execute(QCoreApplication::applicationFilePath(), {at(u"f"_s)}), 1);
        QVERIFY(QFile::exists(at(u"f"_s)));
        qputenv("XDG_DATA_HOME", unixName(m_data.path()).toUtf8());
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
        void* object = sink.get();
        QCOMPARE(sink->QueryInterface(__uuidof(IShellItem), &object), E_NOINTERFACE);
        QVERIFY(object == nullptr);
        QCOMPARE(sink->QueryInterface(__uuidof(IUnknown), nullptr), E_POINTER);
        QCOMPARE(sink->QueryInterface(__uuidof(IFileOperationProgressSink), &object), S_OK);
        auto* other = static_cast<IFileOperationProgressSink*>(object);
        QCOMPARE(other->AddRef(), 3U);
        QCOMPARE(other->Release(), 2U);
        sink.reset(); // The other reference keeps it.
        QCOMPARE(other->Release(), 0U);
    }

    void movesAndRestores()
    {
        test::makeTree(m_directory->path(),
                       u"a file.tmp=10|中文 %1=3|.hidden=1|empty/|d/e/f=5|d/g=7|read only=2"_s);
        const QString readOnly = at(u"read only"_s);
        SetFileAttributesW(wide(readOnly), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
        const QStringList before = listing(m_directory->path());
        const qint64 binned = std::max<qint64>(inBin(), 0);
        QStringList paths{at(u"gone"_s)};
        for (const QFileInfo& entry :
             QDir(m_directory->path())
                 .entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot))
            paths += entry.filePath();
        paths.last() = QDir::toNativeSeparators(paths.last());
        const OpResult result = moveToRecycleBin(paths);
        QCOMPARE(result.message, u"已移到回收站 6 项"_s);
        QVERIFY(result.ok);
        QCOMPARE(listing(m_directory->path()), QStringList());
        QCOMPARE(inBin(), binned + 6);
        QCOMPARE(moveToRecycleBin(paths).message, u"没有需要移动的内容 (可能已被删除)"_s);
        if (!isWine)
            return; // Windows' own programs restore there.
        QDir trash(m_data.filePath(u"Trash"_s));
        const QStringList infos =
            QDir(trash.filePath(u"info"_s)).entryList(QDir::Files | QDir::Hidden);
        for (const QString& info : infos) {
            QFile file(trash.filePath(u"info/"_s + info));
            QVERIFY(file.open(QFile::ReadOnly));
            const QByteArray path = file.readAll().split('\n').at(1).mid(5);
            const QString name = QUrl::fromPercentEncoding(path).section(u'/', -1);
            QVERIFY(trash.rename(u"files/"_s + info.chopped(10), at(name)));
        }
        QCOMPARE(listing(m_directory->path()), before);
    }

    // Never what they lead to.
    void links()
    {
        test::makeTree(m_directory->path(), u"there/f=1|here/"_s);
        for (const QString& target : {u"there"_s, u"there/f"_s}) {
            const QString link = at(u"here/"_s + target.section(u'/', -1));
            if (isWine) // whose bin takes no link: it would take the target
                QProcess::startDetached(u"Z:/usr/bin/ln"_s, {u"-s"_s, unixName(at(target)),
                                                             unixName(at(u"here"_s)) + u'/'});
            else
                CreateSymbolicLinkW(wide(link), wide(QDir::toNativeSeparators(at(target))),
                                    target == "there"_L1 ? 3 : 2);
            if (!QTest::qWaitFor([&link] { return QFileInfo::exists(link); }))
                QSKIP("no links can be made here");
            QCOMPARE(moveToRecycleBin({link}).message,
                     isWine ? u"没有内容被移到回收站, 跳过 1 项 (是链接 1)"_s
                            : u"已移到回收站 1 项"_s);
            QCOMPARE(QFileInfo::exists(link), isWine);
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
        const UniqueHandle held = hold(at(u"held"_s));
        UniqueHandle deep = hold(at(u"d/e/held"_s));
        QVERIFY(held && deep);
        const QStringList before = listing(m_directory->path());
        const auto why = [](const QString& path) {
            const OpResult result = moveToRecycleBin({path});
            const QString because = result.message.section(u'(', 1).section(u' ', 0, -2);
            return result.ok ? u"moved"_s : because;
        };
        const QString drive = m_directory->path().first(3);
        for (const auto& [path, expected] : {std::pair(at(u"held"_s), u"正在使用"_s),
                                             {at(u"d"_s), u"正在使用"_s},
                                             {program, u"正在使用"_s},
                                             {u"free"_s, u"路径无效"_s},
                                             {QString(), u"路径无效"_s},
                                             {drive, u"路径无效"_s},
                                             {at(u"free."_s), u"路径无效"_s},
                                             {at(u"free "_s), u"路径无效"_s},
                                             {at(u"x/../free"_s), u"路径无效"_s},
                                             {at(u"free:s"_s), u"路径无效"_s},
                                             {at(u"nul"_s), u"路径无效"_s},
                                             {at(u"fre?"_s), u"路径无效"_s},
                                             {uR"(\\host\x\free)"_s, u"路径无效"_s},
                                             {uR"(\\.\pipe\x)"_s, u"路径无效"_s},
                                             {at(QString(230, u'x')), u"路径过长"_s},
                                             {QDir::tempPath(), u"系统保留"_s},
                                             {QDir::homePath(), u"系统保留"_s},
                                             {QDir::homePath().section(u'/', 0, -2), u"系统保留"_s},
                                             {qEnvironmentVariable("SystemRoot"), u"系统保留"_s},
                                             {QDir::currentPath(), u"系统保留"_s}})
            QCOMPARE(path + u' ' + why(path), path + u' ' + expected);
        QCOMPARE(listing(m_directory->path()), before);
        running.kill();
        QVERIFY(running.waitForFinished());
        deep.reset();
        const QStringList both{at(u"held"_s), at(u"d"_s), at(u"free"_s)};
        QCOMPARE(moveToRecycleBin(both).message, u"已移到回收站 2 项, 跳过 1 项 (正在使用 1)"_s);
    }

    // Last, as it changes where things are. What the tools list is what can be moved, in whatever case a directory is named.
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
