// Tests of the inventory services: checks before writes, and composed lists; and of the signals of
// file unlocking.
#include "core/file_unlock.h"
#include "core/services.h"
#include "core/software.h"
#include "core/startup.h"
#include "fake/fake_platform.h"

#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class ServicesTest : public QObject
{
    Q_OBJECT

    StartupService& m_startup = Singleton<StartupService>::instance();
    ServiceManagerService& m_manager = Singleton<ServiceManagerService>::instance();
    fake::Platform& m_script = fake::platform();

    void addService(int type, const QString& shown = {}, const QString& path = {})
    {
        m_script.services.records.append(
            {u"key"_s, shown, {}, path, {}, ServiceStartType(type), 0});
    }

private Q_SLOTS:
    void init() { fake::reset(); }

    void writesAreCheckedFirst()
    {
        const auto type = [this](const QString& name, int value) {
            return m_manager.setStartType(name, ServiceStartType(value));
        };
        const auto uninstall = [](const QString& command) {
            return Singleton<UninstallService>::instance().executeUninstall(
                {0, {}, {}, {}, {}, {}, command, 0});
        };
        m_script.writeResult = {false, u"后端"_s};
        QStringList reasons;
        for (const OpResult& result :
             {m_startup.setEnabled(StartupSource::hkcu, {}, true), m_manager.startService({}),
              m_manager.stopService({}), m_manager.setEnabled({}, true), type({}, 6), type({}, 0),
              type(u"x"_s, 0), type(u"x"_s, 1), type(u"x"_s, 6), uninstall(u" \t "_s),
              m_startup.setEnabled(StartupSource::hkcu, u"a"_s, false),
              m_manager.startService(u"b"_s), m_manager.stopService(u"c"_s),
              m_manager.setEnabled(u"d"_s, true), type(u"e"_s, 2), type(u"f"_s, 7),
              uninstall(u"x.exe /u"_s)})
            reasons.append(result.ok ? u"ok"_s : result.message);
        QCOMPARE(reasons.join(u'|'),
                 u"启动项名称不能为空|"_s + u"服务名称不能为空|"_s.repeated(5) +
                     u"引导/系统驱动的启动类型不允许从此处修改|"_s.repeated(2) +
                     u"无效的启动类型|该软件未在注册表提供 UninstallString,无法启动卸载程序 "
                     "(可能是系统应用或 MSIX/Store 应用)。"_s +
                     u"|后端"_s.repeated(7));
        QCOMPARE(m_script.writes.join(u'|'),
                 u"StartupService::setEnabled 1 a 0|startService b|stopService c|setEnabled d 1|"
                 "setStartType e 2|setStartType f 7|executeUninstall x.exe /u"_s);
    }

    void dependencyQueries()
    {
        m_script.dependents = {{QString(), {u"never"_s}}, {u"x"_s, {u"b"_s, u"a"_s}}};
        m_script.dependencies = {{QString(), {u"never"_s}}, {u"x"_s, {u"c"_s}}};
        QString all;
        for (const QString& name : {QString(), u"x"_s})
            all += m_manager.enumDependents(name).join(u' ') + u'|' +
                   m_manager.queryDependencies(name).join(u' ') + u'|';
        QCOMPARE(all, u"||b a|c|"_s);
    }

    void categories()
    {
        m_script.startupItems.records.resize(1);
        addService(2);
        addService(2);
        m_script.scheduledTasks.records.resize(3);
        m_script.shellExtensions.records.resize(4);
        for (int category = 0; category < 4; ++category)
            QCOMPARE(m_startup.listCategory(StartupCategory(category)).size(), category + 1);

        m_script.startupItems.error = u"0"_s;
        m_script.services.error = u"1"_s;
        m_script.scheduledTasks.error = u"2"_s;
        m_script.shellExtensions.error = u"3"_s;
        for (int category = 0; category < 5; ++category) {
            QVERIFY(m_startup.listCategory(StartupCategory(category)).isEmpty());
            QCOMPARE(m_startup.lastError(), category < 4 ? QString::number(category) : QString());
        }
        QVERIFY(m_startup.listServices(nullptr).isEmpty());
    }

    void servicesAsStartupItems()
    {
        for (int type = 0; type <= 7; ++type)
            addService(type, type == 3 ? QString() : u"shown"_s, u" /x -y"_s);
        // Command lines, and what is taken for their executables.
        QString rows =
            u"`C:\\a b\\x.exe` -k `z` => C:\\a b\\x.exe|C:\\Program Files\\x => C:\\Program|"
            "\t %X%/x\t1  -a  => %X%/x\t1|   => |` => |`` => `|`a` => a|`` -x => ` -x|"
            "`open end -x => open end -x"_s;
        for (const QString& row : rows.replace(u'`', u'"').split(u'|'))
            addService(2, {}, row.section(u" => "_s, 0, 0));
        QStringList items;
        for (const StartupItem& item : m_startup.listServices(nullptr)) {
            if (items.size() < 2)
                items << item.name + startupSourceKey(item.source) + startupSourceLabel(item);
            else
                items << item.command + u" => "_s + item.exePath;
            QVERIFY(item.enabled);
        }
        QCOMPARE(items.join(u'|'), u"shownhkcu服务|keyhkcu服务|"_s + rows);
    }

    void unlocking()
    {
        using Unlock = FileUnlockService;
        auto& unlock = Singleton<Unlock>::instance();
        QVERIFY(QMetaType::fromName("QList<korvane::ProcessInfo>").isValid());
        QStringList heard;
        const QObject here;
        connect(&unlock, &Unlock::queryFailed, &here,
                [&](const QString& reason) { heard << reason; });
        connect(&unlock, &Unlock::queryFinished, &here,
                [&](const auto& held) { heard << QString::number(held.value(0).pid); });
        connect(&unlock, &Unlock::operationLog, &here,
                [&](const QString& message, Unlock::OpLevel level) {
                    heard << QString::number(int(level)) + message;
                });
        m_script.lockers.processes = {{7, {}, {}, {}, 0}};
        unlock.query({u"old"_s});
        m_script.lockers = {false, u"不行"_s, {}};
        unlock.query({u"a"_s, u"b"_s});
        m_script.writeResult = {true, u"关闭"_s};
        unlock.closeHandles();
        unlock.killProcesses({});
        unlock.killProcesses({3, 4294967295, 2});
        m_script.writeResults.insert(u"killProcess 3"_s, {false, u"不行"_s});
        unlock.killProcesses({3, 2, 1});
        m_script.writeResult.ok = false;
        unlock.closeHandles();
        unlock.scheduleDeleteOnReboot({u"c"_s, u"d"_s});
        QCOMPARE(heard.join(u'|'), u"7|不行|0关闭|0批量杀进程完成:成功 3 / 失败 0|1不行|"
                                   "1批量杀进程完成:成功 2 / 失败 1|2关闭|2关闭"_s);
        QCOMPARE(m_script.writes.join(u'|').remove(u"killProcess "_s),
                 u"closeHandles a b|3|4294967295|2|3|2|1|closeHandles a b|deleteOnReboot c d"_s);
    }
};

QTEST_GUILESS_MAIN(ServicesTest)
#include "tst_services.moc"
