// Tests startup items on keys, tasks and extensions of the test's own.
#include "platform/startup.h"
#include "platform/windows/startup/scheduled_tasks.h"
#include "platform/windows/sys/command_line.h"
#include "platform/windows/sys/registry.h"
#include "support/registry.h"
#include "support/windows.h"

#include <sddl.h>
#include <winternl.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using windows_platform::RegistryKey;
using windows_platform::systemFunction;
using windows_platform::wide;

namespace {

const HKEY machine = HKEY_LOCAL_MACHINE;
const HKEY user = HKEY_CURRENT_USER;
constexpr REGSAM view64 = KEY_WOW64_64KEY;
constexpr REGSAM view32 = KEY_WOW64_32KEY;
const QString run = uR"(Software\Microsoft\Windows\CurrentVersion\Run)"_s;
const QString switches =
    uR"(Software\Microsoft\Windows\CurrentVersion\Explorer\StartupApproved\)"_s;

const test::Cases<const char*, const char*> commands{
    {"quoted", R"("$\a b\tool one.exe" -x "y z")", R"($\a b\tool one.exe)"},
    {"unquoted", R"($\a b\tool one.exe -x)", R"($\a b\tool one.exe)"},
    {"shortest file", R"($\tool two.exe)", R"($\tool.exe)"},
    {"no extension", "$\\a b\\tool one\t-x", R"($\a b\tool one.exe)"},
    {"variable", R"(%KORVANE_TEST%\a b\tool one.exe)", R"($\a b\tool one.exe)"},
    {"system's program", "rundll32 shell32.dll,Control_RunDLL x y",
     R"(C:\windows\system32\rundll32.exe)"},
    {"nowhere", R"($\none here.exe -x)", R"($\none here.exe)"},
    {"share", R"(\\host.invalid\a b\x.exe -x)", R"(\\host.invalid\a b\x.exe)"},
    {"device", R"(\\.\pipe\x -x)", R"(\\.\pipe\x)"},
    {"open quote", R"("C:\open x)", R"(C:\open x)"},
    {"quote", R"(")", ""},
    {"empty", " ", ""},
};

/// A task's definition with these triggers and actions.
QString taskXml(const QString& triggers, const QString& actions)
{
    return u"<?xml version=\"1.0\" encoding=\"UTF-16\"?><Task version=\"1.2\" xmlns=\"http://schemas."
           "microsoft.com/windows/2004/02/mit/task\"><Triggers>%1</Triggers><Actions>%2</Actions>"
           "</Task>"_s.arg(triggers, actions);
}

} // namespace

class TestWindowsStartup : public QObject
{
    Q_OBJECT

    static QStringList listed()
    {
        test::Client client;
        QStringList rows = client.call(u"list_startup_items"_s)
                               .rows(u"startup_items"_s, "name command exe_path source enabled");
        rows.removeIf([](const QString& row) { return !row.startsWith(u"KT "_s); });
        return rows;
    }

    static QByteArray switchOf(HKEY root, const char* key, const QString& name)
    {
        const RegistryKey found(root, switches + QString::fromLatin1(key), KEY_READ | view64);
        return found.bytes(name).value_or("none");
    }

private Q_SLOTS:
    void commandLines_data() { test::addRows(commands); }
    void commandLines()
    {
        const auto& [name, line, executable] = test::currentRow(commands);
        QTemporaryDir directory;
        const QString folder = QDir::toNativeSeparators(directory.path());
        QVERIFY(QDir(folder).mkpath(u"a b"_s) && QDir(folder).mkpath(u"a.exe"_s));
        for (const char* file : {"a b/tool one.exe", "tool.exe", "tool two.exe"})
            QVERIFY(QFile(directory.filePath(QString::fromLatin1(file))).open(QFile::WriteOnly));
        qputenv("KORVANE_TEST", folder.toLocal8Bit());
        const auto here = [&](const char* text) {
            return QString::fromLatin1(text).replace(u'$', folder);
        };
        QCOMPARE(windows_platform::splitCommand(here(line)).executable.toLower(),
                 here(executable).toLower());
    }

    void runItems()
    {
        test::Registry registry;
        registry.set(machine, view64, run, u"KT two"_s, u"\"C:\\a\" 64"_s);
        registry.set(machine, view32, run, u"KT two"_s, u"\"C:\\a\" 32"_s);
        registry.set(machine, view32, run, u"KT 三"_s, u"C:\\b.exe x"_s);
        registry.set(user, 0, run, u"KT user"_s, u"%SystemDrive%\\c.exe"_s, REG_EXPAND_SZ);
        registry.set(user, 0, run, u"KT number"_s, REG_DWORD, "1234");
        registry.set(user, 0, switches + u"Run"_s, u"KT user"_s, REG_BINARY, QByteArray("\7", 1));
        registry.set(machine, view64, switches + u"Run"_s, u"KT two"_s, REG_BINARY, "");
        registry.set(machine, view64, switches + u"Run32"_s, u"KT 三"_s, REG_BINARY, "\6 odd");
        QStringList rows{u"KT two|\"C:\\a\" 64|C:\\a|hklm|true"_s,
                         u"KT two|\"C:\\a\" 32|C:\\a|hklm|true"_s,
                         u"KT 三|C:\\b.exe x|C:\\b.exe|hklm|true"_s,
                         u"KT user|%SystemDrive%\\c.exe|C:\\c.exe|hkcu|false"_s};
        QCOMPARE(listed(), rows);

        FILETIME from{};
        GetSystemTimeAsFileTime(&from);
        const auto change = [](StartupSource source, const QString& name, bool enabled) {
            const OpResult result = platform::setRunItemEnabled(source, name, enabled);
            return result.ok && result.message.contains(name);
        };
        QVERIFY(change(StartupSource::hklm, u"KT two"_s, false));
        QVERIFY(change(StartupSource::hklm, u"KT 三"_s, false));
        QVERIFY(change(StartupSource::hkcu, u"KT user"_s, true));
        QVERIFY(!change(StartupSource::hkcu, u"KT two"_s, true)); // It is the machine's.
        QVERIFY(!change(StartupSource::hklm, u"kt TWO"_s, true));
        rows.replaceInStrings(u"64|C:\\a|hklm|true"_s, u"64|C:\\a|hklm|false"_s);
        rows.replaceInStrings(u"b.exe|hklm|true"_s, u"b.exe|hklm|false"_s);
        rows.replaceInStrings(u"hkcu|false"_s, u"hkcu|true"_s);
        QCOMPARE(listed(), rows);
        QCOMPARE(switchOf(user, "Run", u"KT user"_s), QByteArray("\2").leftJustified(12, '\0'));
        QCOMPARE(switchOf(machine, "Run32", u"KT two"_s), "none");
        for (const QByteArray& off :
             {switchOf(machine, "Run", u"KT two"_s), switchOf(machine, "Run32", u"KT 三"_s)}) {
            FILETIME time{};
            QCOMPARE(off.size(), 12);
            QCOMPARE(off.first(4), QByteArray("\3\0\0\0", 4));
            memcpy(&time, off.constData() + 4, sizeof time);
            QVERIFY(CompareFileTime(&from, &time) <= 0);
        }
    }

    void aMachineKeyWithoutRights()
    {
        test::Registry registry;
        registry.set(machine, view64, run, u"KT machine"_s, u"x"_s);
        registry.set(machine, view64, switches + u"Run"_s, u"KT other"_s, REG_BINARY, "\2");
        HKEY key = nullptr;
        RegOpenKeyExW(machine, wide(switches + u"Run"_s), 0, KEY_ALL_ACCESS | view64, &key);
        const auto setAccess = [key](const wchar_t* text) {
            void* access = nullptr;
            ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &access,
                                                                 nullptr);
            const windows_platform::UniqueLocal<void> owner(access);
            return RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, access);
        };
        QCOMPARE(setAccess(L"D:P(A;;KR;;;WD)"), ERROR_SUCCESS);
        const auto result =
            platform::setRunItemEnabled(StartupSource::hklm, u"KT machine"_s, false);
        QCOMPARE(setAccess(L"D:P(A;;KA;;;WD)"), ERROR_SUCCESS);
        RegCloseKey(key);
        QVERIFY2(!result.ok && result.message.contains(u"管理员"_s),
                 qUtf8Printable(result.message));
        QCOMPARE(switchOf(machine, "Run", u"KT machine"_s), "none");
    }

    /// A NUL in its name hides a value from most programs, not from the system that starts it.
    void aHiddenRunItem()
    {
        using SetValue = LONG(WINAPI*)(HANDLE, UNICODE_STRING*, ULONG, ULONG, const void*, ULONG);
        using DeleteValue = LONG(WINAPI*)(HANDLE, UNICODE_STRING*);
        HKEY key = nullptr;
        RegCreateKeyExW(user, wide(run), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        std::wstring name(L"KT \0hidden", 10);
        UNICODE_STRING hidden{20, 20, name.data()};
        systemFunction<SetValue>(L"ntdll.dll", "NtSetValueKey")(key, &hidden, 0, REG_SZ,
                                                                L"C:\\h.exe", 18);
        const QStringList rows = listed();
        const QString shown = QString::fromWCharArray(name.data(), 10);
        const OpResult result = platform::setRunItemEnabled(StartupSource::hkcu, shown, false);
        systemFunction<DeleteValue>(L"ntdll.dll", "NtDeleteValueKey")(key, &hidden);
        RegCloseKey(key);
        QCOMPARE(rows, QStringList{shown + u"|C:\\h.exe|C:\\h.exe|hkcu|true"_s});
        QVERIFY(!result.ok && result.message.contains(u"空字符"_s));
    }

    void tasks()
    {
        const QString logon = u"<TimeTrigger/><LogonTrigger><Enabled>%1</Enabled></LogonTrigger>"_s;
        const QString program =
            u"<ComHandler/><Exec><Command>\"C:\\a b\\t.exe\"</Command><Arguments>"
            "-x &amp;</Arguments></Exec><Exec><Command>y</Command></Exec>"_s;
        const auto item = windows_platform::itemOfTask(taskXml(logon.arg(u"true"_s), program));
        QVERIFY(item && item->enabled);
        QCOMPARE(item->command + u'|' + item->exePath, u"\"C:\\a b\\t.exe\" -x &|C:\\a b\\t.exe"_s);
        const auto off = windows_platform::itemOfTask(taskXml(logon.arg(u"false"_s), {}));
        QVERIFY(off && !off->enabled && off->command.isEmpty());
        for (const QString& none : {taskXml(u"<TimeTrigger/>"_s, u"<LogonTrigger/>"_s), QString(),
                                    taskXml(u"<BootTrigger/>"_s, program).chopped(9)})
            QVERIFY(!windows_platform::itemOfTask(none));

        const QTemporaryDir directory;
        QFile file(directory.filePath(u"task"_s));
        const QString xml =
            QChar(QChar::ByteOrderMark) +
            taskXml(logon.arg(u"true"_s),
                    program.section(u"<Exec><C"_s, 0, -2).remove(u"<ComHandler/>"_s));
        QVERIFY(file.open(QFile::WriteOnly) &&
                file.write(reinterpret_cast<const char*>(xml.utf16()), 2 * xml.size()) ==
                    2 * xml.size());
        file.close();
        const auto schtasks = [](const QString& what, const QStringList& more) {
            const QString name = u"\\korvane test\\deeper\\任务"_s;
            return QProcess::execute(u"schtasks"_s, QStringList{what, u"/tn"_s, name} + more);
        };
        QCOMPARE(schtasks(u"/create"_s, {u"/xml"_s, file.fileName()}), 0);
        QString error;
        auto items = platform::listScheduledTasks(&error);
        QCOMPARE(schtasks(u"/delete"_s, {u"/f"_s}), 0);
        if (items.isEmpty() && error.contains(QString::number(uint(E_NOTIMPL), 16)))
            QSKIP("Wine registers tasks, but does not list them");
        QCOMPARE(error, QString());
        items.removeIf([](const StartupItem& one) { return one.name != u"任务"_s; });
        QCOMPARE(items.size(), 1);
        QVERIFY(items[0].enabled && items[0].exePath == u"C:\\a b\\t.exe"_s);
    }

    void shellExtensions()
    {
        test::Registry registry;
        const QString list = uR"(Software\Microsoft\Windows\CurrentVersion\Shell Extensions\)"_s;
        const QString id = u"{12345678-1234-1234-1234-12345678ABCD}"_s;
        const QString server = uR"(Software\Classes\CLSID\%1\InprocServer32)"_s.arg(id);
        for (const REGSAM view : {view64, view32}) {
            const QString library = view == view64 ? u"C:\\a b\\64.dll"_s : u"\"C:\\32.dll\""_s;
            registry.set(machine, view, list + u"Approved"_s, id, u"KT ext"_s);
            registry.set(machine, view, server, {}, library);
        }
        registry.set(machine, view32, list + u"Blocked"_s, id, QString());
        registry.set(user, 0, list + u"Approved"_s, id, QString()); // The same server again.
        registry.set(user, 0, list + u"Approved"_s, u"..\\KT"_s, u"KT none"_s);
        QStringList rows;
        for (const StartupItem& item : platform::listShellExtensions(nullptr)) {
            const QString enabled = item.enabled ? u"on"_s : u"off"_s;
            if (item.name.startsWith(u"KT "_s))
                rows += QStringList{item.name, item.command, item.exePath, enabled}.join(u'|');
        }
        QCOMPARE(rows, (QStringList{u"KT ext|%1|C:\\a b\\64.dll|on"_s.arg(id),
                                    u"KT ext|%1|C:\\32.dll|off"_s.arg(id)}));
    }
};

QTEST_GUILESS_MAIN(TestWindowsStartup)
#include "tst_windows_startup.moc"
