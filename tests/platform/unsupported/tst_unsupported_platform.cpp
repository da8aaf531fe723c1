// Tests what every operation of the platform layer answers where there is no back end.
#include "core/file_unlock_service.h"
#include "core/net_monitor_service.h"
#include "core/process_service.h"
#include "core/service_manager_service.h"
#include "core/signature_service.h"
#include "core/startup_service.h"
#include "core/uninstall_service.h"
#include "platform/platform.h"
#include "platform/unsupported/unsupported.h"
#include "support/json.h"

#include <QTest>

#include <array>
#include <bit>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

/// What the operations answered, and what the program wrote to its default log, in order.
QStringList heard;

void keepLogged(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtInfoMsg && QByteArrayView(context.category) == "default")
        heard.append(text);
}

template <typename Service> Service& service()
{
    return Singleton<Service>::instance();
}

/// What `list` answers the first time and the second; a log line comes the first time alone.
template <typename Service, typename Result> void listTwice(Result (Service::*list)() const)
{
    for (int i = 0; i < 2; ++i) {
        heard.append((service<Service>().*list)().isEmpty() ? service<Service>().lastError()
                                                            : u"records"_s);
    }
}

} // namespace

class TestUnsupportedPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { qInstallMessageHandler(keepLogged); }
    void cleanupTestCase() { qInstallMessageHandler(nullptr); }
    void init() { heard.clear(); }

    void listings()
    {
        listTwice(&ProcessService::listAllProcesses);
        listTwice(&StartupService::listAll);
        listTwice(&NetMonitorService::listAll);
        listTwice(&UninstallService::listAll);
        listTwice(&ServiceManagerService::listAll);
        for (const auto category :
             {StartupCategory::ScheduledTask, StartupCategory::ShellExtension}) {
            QVERIFY(service<StartupService>().listCategory(category).isEmpty());
            heard.append(service<StartupService>().lastError());
        }
        QVERIFY(unsupported::failedListing<int>(nullptr, u"nobody asks why"_s).isEmpty());
        QCOMPARE(heard, test::rows(R"(
            [ProcessService] 当前平台不支持进程枚举, 返回空列表
            当前平台不支持进程枚举
            当前平台不支持进程枚举
            [StartupService] 当前平台不支持启动项枚举
            当前平台不支持启动项管理
            当前平台不支持启动项管理
            [NetMonitorService] 当前平台不支持 TCP 枚举
            当前平台不支持网络监视
            当前平台不支持网络监视
            [UninstallService] 当前平台不支持已安装软件枚举
            当前平台不支持已安装软件枚举
            当前平台不支持已安装软件枚举
            [ServiceManagerService] 当前平台不支持服务枚举
            当前平台不支持服务管理
            当前平台不支持服务管理
            当前平台不支持计划任务枚举
            当前平台不支持 Shell 扩展枚举)"));
    }

    void changes()
    {
        const QString name = u"x"_s;
        UninstallEntry entry;
        entry.uninstallString = name;
        auto& manager = service<ServiceManagerService>();
        auto& unlock = service<FileUnlockService>();
        for (const OpResult& result :
             {manager.startService(name), manager.stopService(name), manager.setEnabled(name, true),
              manager.setStartType(name, ServiceStartType::Auto),
              service<StartupService>().setEnabled(StartupSource::hklm, name, true),
              service<UninstallService>().executeUninstall(entry),
              platform::moveToRecycleBin({name}), unlock.closeHandlesSync(), unlock.killProcess(1)})
            heard.append(result.ok ? u"done"_s : result.message);
        connect(&unlock, &FileUnlockService::operationLog, this,
                [](const QString& text, FileUnlockService::OpLevel level) {
                    heard << text << QString::number(int(level));
                });
        const LockerProbe probe = unlock.probeLockers({u"/"_s});
        QVERIFY(!probe.ok && probe.processes.isEmpty());
        heard.append(probe.error);
        unlock.scheduleDeleteOnReboot({u"/"_s});
        QCOMPARE(heard, test::rows(R"(
            当前平台不支持服务管理
            当前平台不支持服务管理
            当前平台不支持服务管理
            当前平台不支持服务管理
            当前平台不支持启动项启用/禁用
            当前平台不支持执行卸载
            当前平台不支持回收站删除
            closeHandlesSync 仅支持 Windows
            killProcess 仅支持 Windows
            FileUnlockService 仅支持 Windows 10+
            scheduleDeleteOnReboot 仅支持 Windows
            2)"));
    }

    void otherOperationsAnswerEmptyHanded()
    {
        const QString path = QCoreApplication::applicationFilePath();
        QCOMPARE(service<ServiceManagerService>().enumDependents(path), QStringList());
        QCOMPARE(service<ServiceManagerService>().queryDependencies(path), QStringList());
        QCOMPARE(platform::processCommandLine(1), QString());
        QVERIFY(platform::mayAnswerForUser(-1));
        QVERIFY(!platform::setKeepAwake(true));
        QVERIFY(!platform::emptyRecycleBin());
        QVERIFY(!platform::removeMarkOfTheWeb(path));
        QCOMPARE(platform::toggleForegroundWindowTopmost(), -1);
        auto& signatures = service<SignatureService>();
        for (const QString& file : {path, path + u'2'})
            QCOMPARE(signatures.verify(file), SignatureStatus::Unknown);
        QCOMPARE(signatures.signerName(path), QString());
        QCOMPARE(heard, QStringList(u"[SignatureService] 当前平台不支持 Authenticode 签名验证"_s));
        using Words = std::array<quint64, 12>;
        for (const auto sample : {&platform::sampleSystemMetrics, &platform::sampleMemoryOnly}) {
            Words words;
            words.fill(0x4141414141414141);
            auto metrics = std::bit_cast<SystemMetrics>(words);
            sample(metrics);
            QVERIFY(std::bit_cast<Words>(metrics) == Words{});
        }
    }
};

QTEST_GUILESS_MAIN(TestUnsupportedPlatform)
#include "tst_unsupported_platform.moc"
