// Tests the listing of installed software on entries of the test's own, and that uninstallers start.
#include "platform/software.h"
#include "support/mcp_client.h"
#include "support/registry.h"
#include "support/table.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <vector>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

constexpr REGSAM view64 = KEY_WOW64_64KEY;
constexpr REGSAM view32 = KEY_WOW64_32KEY;
const HKEY machine = HKEY_LOCAL_MACHINE;
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

} // namespace

class TestWindowsSoftware : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void listing()
    {
        const QString all = uR"(Software\Microsoft\Windows\CurrentVersion\Uninstall\)"_s;
        test::Registry registry;
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
        for (const QString& command :
             {folder + u"\\none.exe /x"_s, u"korvane-none.exe"_s, u"\""_s, QString(),
              u'"' + folder + u'"', uR"(\\localhost\c$\x.exe)"_s}) {
            entry.uninstallString = command;
            const OpResult result = platform::uninstallSoftware(entry);
            QVERIFY2(!result.ok && result.message.contains(u"卸载程序"_s), qUtf8Printable(command));
        }
        // They may still be ending.
        QTRY_VERIFY(QFile::remove(program) || !QFile::exists(program));
    }
};

QTEST_GUILESS_MAIN(TestWindowsSoftware)
#include "tst_windows_software.moc"
