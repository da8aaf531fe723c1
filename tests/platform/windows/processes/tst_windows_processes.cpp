// Tests the process tools on processes of the test's own making, and the parser on damaged tables.
#include "base/shown_processes.h"
#include "platform/processes.h"
#include "platform/windows/processes/process_table.h"
#include "platform/windows/sys/process_handle.h"
#include "support/windows.h"

#include <winternl.h>

#include <aclapi.h>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

/// A shell that waits for commands; gone with this object.
class Shell : public QProcess
{
public:
    Shell()
    {
        start(u"cmd.exe"_s, {u"/d"_s, u"/q"_s, u"/k"_s, u"rem a  b\""_s});
        waitForStarted();
    }

    quint32 pid() const { return static_cast<quint32>(processId()); }
    bool isRunning() { return !waitForFinished(0) && state() == Running; }
};

quint64 startOf(quint32 pid)
{
    return windows_platform::creationTime(windows_platform::openProcess(pid).get()).value_or(0);
}

/// "yes" or "no", and the message with N for the PID; `start` is what a listing showed.
QString ended(quint32 pid, quint64 start)
{
    ShownProcesses shown;
    shown.insert(pid, start);
    const OpResult result = platform::endProcess(pid, shown);
    return (result.ok ? u"yes: "_s : u"no: "_s) +
           QString(result.message).replace(QString::number(pid), u"N"_s);
}

/// Two records with a name each, as the system lays them out.
struct Table
{
    std::array<SYSTEM_PROCESS_INFORMATION, 2> records{};
    std::array<wchar_t, 4> name{L'a', L'.', L'b', L'x'};
    std::size_t size = sizeof records + sizeof name;

    Table()
    {
        records[0].NextEntryOffset = sizeof records[0];
        for (auto& record : records)
            record.ImageName = {6, 6, name.data()};
    }
    wchar_t* other() { return reinterpret_cast<wchar_t*>(&records[0]); }
    QString parsed() const
    {
        const auto parsed =
            windows_platform::parseProcessTable({reinterpret_cast<const std::byte*>(this), size});
        if (!parsed)
            return u"damaged"_s;
        QString names;
        for (const auto& record : *parsed)
            names += record.name + u'/' + QString::number(record.cpuTime) + u' ';
        return names;
    }
};

// clang-format off
const test::Cases<std::function<void(Table&)>, QString> tables{
    {"whole", [](Table&) {}, u"a.b/0 a.b/0 "_s},
    {"nothing", [](Table& t) { t.size = 0; }, u"damaged"_s},
    {"cut in the second", [](Table& t) { t.size = 400; }, u"damaged"_s},
    {"goes round", [](Table& t) { t.records[0].NextEntryOffset = 8; }, u"damaged"_s},
    {"leads outside", [](Table& t) { t.records[1].NextEntryOffset = 0xfffffff8; }, u"damaged"_s},
    {"name is cut", [](Table& t) { t.records[1].ImageName.Length = 10; }, u"damaged"_s},
    {"name is of another", [](Table& t) { t.records[1].ImageName.Buffer = t.other(); }, u"damaged"_s},
    {"odd name", [](Table& t) { t.records[1].ImageName.Length = 5; }, u"a.b/0 a./0 "_s},
    {"times that overflow",
     [](Table& t) {
         t.records[1].UserTime.QuadPart = std::numeric_limits<qint64>::max();
         t.records[1].KernelTime.QuadPart = -1;
     },
     u"a.b/0 a.b/9223372036854775807 "_s},
};
// clang-format on

} // namespace

class TestWindowsProcesses : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void damagedTables_data() { test::addRows(tables); }
    void damagedTables()
    {
        const auto& [tag, damage, expected] = test::currentRow(tables);
        Table table;
        damage(table);
        QCOMPARE(table.parsed(), expected);
    }

    void aChildIsListed()
    {
        Shell parent;
        parent.write("ping.exe -n 60 127.0.0.1 >nul\n");
        QJsonObject grandchild;
        QTRY_VERIFY(!(grandchild = listed(u"parent_pid"_s, parent.pid())).isEmpty());
        const QJsonObject child = listed(u"pid"_s, parent.pid());
        QCOMPARE(test::values(child, u"name parent_pid exe_path"_s).toLower(),
                 u"cmd.exe|%1|c:\\windows\\system32\\cmd.exe"_s.arg(GetCurrentProcessId()));
        QVERIFY(child[u"memory_bytes"_s].toInteger() > 100'000);

        const auto pid = static_cast<quint32>(grandchild[u"pid"_s].toInteger());
        const auto line = platform::processAndAncestors(pid);
        QVERIFY(line.size() > 2 && line[0].exePath.endsWith(u"\\ping.exe"_s, Qt::CaseInsensitive));
        QCOMPARE(line[1].pid, parent.pid());
        QCOMPARE(line[2].pid, static_cast<quint32>(QCoreApplication::applicationPid()));
        const quint64 start = startOf(pid);
        parent.kill();
        QVERIFY(parent.waitForFinished());
        QCOMPARE(listed(u"pid"_s, pid)[u"parent_pid"_s], QJsonValue(0));
        QCOMPARE(ended(pid, start), u"yes: 进程 (PID N) 已结束"_s);
        QVERIFY(platform::processAndAncestors(pid).isEmpty());
    }

    void commandLines()
    {
        const Shell shell;
        if (platform::processCommandLine(shell.pid()).isEmpty() && test::isWine)
            QSKIP("this Wine has no ProcessCommandLineInformation");
        QVERIFY(platform::processCommandLine(shell.pid()).endsWith(u"/d /q /k \"rem a  b\\\"\""_s));
    }

    void onlyTheShownOneIsEnded()
    {
        Shell shell;
        const quint64 start = startOf(shell.pid());
        QCOMPARE(ended(shell.pid(), start + 1),
                 u"no: 进程 (PID N) 已退出, 该 PID 现属于另一个进程, 未结束任何进程"_s);
        QCOMPARE(platform::endProcess(shell.pid(), {}).ok, false);
        QVERIFY(windows_platform::openProcess(shell.pid() + 1) == nullptr); // the system opens it
        const auto self = static_cast<quint32>(QCoreApplication::applicationPid());
        QCOMPARE(ended(self, startOf(self)), u"no: 拒绝结束本程序自身 (PID N)"_s);
        QCOMPARE(ended(4, 0), u"no: 拒绝结束系统的初始进程 (PID N)"_s);
        QVERIFY(shell.isRunning());
        const auto handle = windows_platform::openProcess(shell.pid()); // and so its PID
        QCOMPARE(ended(shell.pid(), start), u"yes: 进程 (PID N) 已结束"_s);
        QVERIFY(!shell.isRunning());
        QCOMPARE(ended(shell.pid(), start), u"yes: 进程 (PID N) 已退出, 无需结束"_s);
        QCOMPARE(ended(0xfffffff0, 1), u"yes: 进程 (PID N) 已退出, 无需结束"_s); // never there
    }

    void oneOutOfReach()
    {
        Shell shell;
        const auto start = startOf(shell.pid());
        const auto handle = windows_platform::openProcess(shell.pid(), PROCESS_ALL_ACCESS);
        ACL nobody{};
        InitializeAcl(&nobody, sizeof nobody, ACL_REVISION);
        QCOMPARE(SetSecurityInfo(handle.get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                 nullptr, &nobody, nullptr),
                 DWORD(ERROR_SUCCESS));
        if (windows_platform::openProcess(shell.pid()) != nullptr)
            QSKIP("this user may open any process");
        QCOMPARE(ended(shell.pid(), start),
                 u"no: 没有权限结束进程 (PID N): 它属于其他用户, 权限更高或受系统保护"_s);
        QVERIFY(shell.isRunning());
        TerminateProcess(handle.get(), 0);
    }

private:
    /// The process in whose object `key` has this value, but for the console of a shell; empty where
    /// there is none.
    QJsonObject listed(const QString& key, qint64 value)
    {
        for (const QJsonValue process :
             m_client.call(u"list_processes"_s).json()[u"processes"_s].toArray()) {
            if (process[key].toInteger() == value && process[u"name"_s] != u"conhost.exe"_s)
                return process.toObject();
        }
        return {};
    }

    test::Client m_client;
};

QTEST_GUILESS_MAIN(TestWindowsProcesses)
#include "tst_windows_processes.moc"
