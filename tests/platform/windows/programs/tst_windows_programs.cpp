// Tests startup items and installed software on keys, tasks and extensions of the test's own, and
// that uninstallers start.
#include "platform/software.h"
#include "platform/startup.h"
#include "platform/windows/startup/scheduled_tasks.h"
#include "platform/windows/sys/command_line.h"
#include "platform/windows/sys/registry.h"
#include "support/windows.h"

#include <functional>

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

const QByteArray one("\1\0\0\0", 4);

struct Value
{
    const char* key;
    const char* name;
    const char* text; ///< A number where there is none.
    REGSAM view = view64;
    HKEY root = machine;
};

const std::vector<Value> values{
    {"a", "DisplayName", "KT 全部 "},
    {"a", "DisplayVersion", "1.2"},
    {"a", "Publisher", "P %1"},
    {"a", "UninstallString", R"("C:\a\u.exe" /x)"},
    {"a", "DisplayName", "KT 全部", view32}, // Another program,
    {"both", "DisplayName", "KT both"},      // the same one.
    {"both", "DisplayName", "KT both", view32},
    {"user", "DisplayName", "KT user", view64, HKEY_CURRENT_USER},
    {"{12345678-1234-1234-1234-123456789abc}", "DisplayName", "KT package"},
    {"{12345678-1234-1234-1234-123456789abc}", "WindowsInstaller", nullptr},
    // What the system's own list hides.
    {"system", "DisplayName", "KT hidden"},
    {"system", "SystemComponent", nullptr},
    {"parent", "DisplayName", "KT hidden"},
    {"parent", "ParentKeyName", "x"},
    {"parent2", "DisplayName", "KT hidden"},
    {"parent2", "ParentDisplayName", "x"},
    {"update", "DisplayName", "KT hidden"},
    {"update", "ReleaseType", "Security Update"},
    {"fix", "DisplayName", "KT hidden"},
    {"fix", "ReleaseType", "Hotfix"},
    {"number", "DisplayName", nullptr},
    {"nameless", "Publisher", "KT hidden"},
    // Values of other types than they should be.
    {"odd", "EstimatedSize", "many"},
    {"odd", "SystemComponent", "1"},
};

/// Values of the registry, taken back at the end.
class Registry
{
    Q_DISABLE_COPY_MOVE(Registry)

public:
    Registry() = default;
    ~Registry()
    {
        for (; !m_undo.empty(); m_undo.pop_back())
            m_undo.back()();
    }

    /// Sets a value in a key, which is made where it is missing, and then removed at the end.
    void set(HKEY root, REGSAM view, const QString& path, const QString& name, DWORD type,
             const QByteArray& data)
    {
        HKEY key = nullptr;
        DWORD made = 0;
        RegCreateKeyExW(root, wide(path), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &key,
                        &made);
        RegSetValueExW(key, wide(name), 0, type, reinterpret_cast<const BYTE*>(data.constData()),
                       static_cast<DWORD>(data.size()));
        m_undo.emplace_back([=] {
            RegDeleteValueW(key, wide(name));
            RegCloseKey(key);
            if (made == REG_CREATED_NEW_KEY)
                RegDeleteKeyExW(root, wide(path), view, 0);
        });
    }
    void set(HKEY root, REGSAM view, const QString& path, const QString& name, const QString& text,
             DWORD type = REG_SZ)
    {
        const auto* data = reinterpret_cast<const char*>(text.utf16());
        set(root, view, path, name, type, QByteArray(data, (text.size() + 1) * 2));
    }

private:
    std::vector<std::function<void()>> m_undo;
};

} // namespace

class TestWindowsPrograms : public QObject
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
        Registry registry;
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
        Registry registry;
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
        Registry registry;
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

    void software()
    {
        const QString all = uR"(Software\Microsoft\Windows\CurrentVersion\Uninstall\)"_s;
        Registry registry;
        for (const Value& value : values) {
            const QString key = all + QString::fromLatin1(value.key);
            const QString name = QString::fromLatin1(value.name);
            if (value.text != nullptr)
                registry.set(value.root, value.view, key, name, QString::fromUtf8(value.text));
            else
                registry.set(value.root, value.view, key, name, REG_DWORD, one);
        }
        const QByteArray size("\0\4\0\xff", 4);
        registry.set(machine, view64, all + u"a"_s, u"EstimatedSize"_s, REG_DWORD, size);
        registry.set(machine, view64, all + u"a"_s, u"InstallLocation"_s, u"%SystemDrive%\\a"_s,
                     REG_EXPAND_SZ);
        const QByteArray odd("K\0T\0 \0o\0d\0d\0x", 13); // Half a character too much, and no end.
        registry.set(machine, view64, all + u"odd"_s, u"DisplayName"_s, REG_SZ, odd);
        const QString longName = u"KT long"_s + QString(5000, u'x');
        registry.set(machine, view64, all + u"long"_s, u"DisplayName"_s, longName);

        test::Client client;
        QStringList rows =
            client.call(u"list_uninstall_entries"_s)
                .rows(u"entries"_s, "display_name display_version publisher install_location "
                                    "uninstall_string size_kb source");
        rows.removeIf([](const QString& row) { return !row.startsWith(u"KT "_s); });
        rows.sort();
        QCOMPARE(rows,
                 (QStringList{u"KT both|||||0|系统 64"_s, longName.left(1024) + u"|||||0|系统 64"_s,
                              u"KT odd|||||0|系统 64"_s,
                              u"KT package||||MsiExec.exe "
                              "/X{12345678-1234-1234-1234-123456789abc}|0|系统 64"_s,
                              u"KT user|||||0|用户"_s,
                              u"KT 全部|1.2|P %1|C:\\a|\"C:\\a\\u.exe\" /x|4278191104|系统 64"_s,
                              u"KT 全部|||||0|系统 32"_s}));
    }

    void uninstallers()
    {
        QTemporaryDir directory;
        const QString folder = QDir::toNativeSeparators(directory.path());
        const QString program = folder + u"\\un install.exe"_s;
        QVERIFY(QFile::copy(u"C:/windows/system32/cmd.exe"_s, program));
        UninstallEntry entry;
        for (const QString& start : {u'"' + program + u'"', program, u"cmd.exe"_s}) {
            const QString sign = folder + u"\\done"_s + QString::number(start.size());
            entry.uninstallString = start + u" /c echo>"_s + sign;
            const OpResult result = platform::uninstallSoftware(entry);
            QVERIFY2(result.ok, qUtf8Printable(result.message));
            QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(sign), 20'000);
        }
        for (const QString& command : {folder + u"\\none.exe /x"_s, u"korvane-none.exe"_s, u"\""_s,
                                       QString(), u'"' + folder + u'"'}) {
            entry.uninstallString = command;
            const OpResult result = platform::uninstallSoftware(entry);
            QVERIFY2(!result.ok && result.message.contains(u"卸载程序"_s), qUtf8Printable(command));
        }
        // They may still be ending.
        QTRY_VERIFY(QFile::remove(program) || !QFile::exists(program));
    }
};

QTEST_GUILESS_MAIN(TestWindowsPrograms)
#include "tst_windows_programs.moc"
