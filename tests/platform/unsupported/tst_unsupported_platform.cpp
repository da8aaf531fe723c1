// Tests what every operation of the platform layer answers where there is no back end.
#include "core/file_unlock.h"
#include "core/network.h"
#include "core/processes.h"
#include "core/services.h"
#include "core/signatures.h"
#include "core/software.h"
#include "core/startup.h"
#include "platform/desktop.h"
#include "platform/metrics.h"
#include "platform/notification.h"
#include "platform/peer.h"
#include "platform/processes.h"
#include "platform/recycle_bin.h"
#include "platform/session.h"
#include "platform/unsupported/unsupported.h"

#include <QTest>

#include <array>
#include <bit>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

/// What the operations answered, and what the program wrote to its default log.
QString heard;
QString logged;

void keepLogged(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtInfoMsg && QByteArrayView(context.category) == "default")
        logged += text + u'|';
}

template <typename Service> Service& service()
{
    return Singleton<Service>::instance();
}

template <typename List, typename Service> void hear(const List& list, const Service& service)
{
    heard += list.isEmpty() ? service.lastError() + u'|' : u"records|"_s;
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
        auto& startup = service<StartupService>();
        for (int i = 0; i < 2; ++i) { // The log tells it the first time alone.
            heard.clear();
            hear(service<ProcessService>().listAllProcesses(), service<ProcessService>());
            for (const int category : {0, 2, 3})
                hear(startup.listCategory(StartupCategory(category)), startup);
            hear(service<NetMonitorService>().listAll(), service<NetMonitorService>());
            hear(service<UninstallService>().listAll(), service<UninstallService>());
            hear(service<ServiceManagerService>().listAll(), service<ServiceManagerService>());
            for (const auto* file : {"1", "2"})
                QCOMPARE(service<SignatureService>().verify(QString::fromLatin1(file)),
                         SignatureStatus::Unknown);
        }
        QCOMPARE(heard,
                 u"当前平台不支持进程枚举|当前平台不支持启动项管理|当前平台不支持计划任务枚举|"
                 "当前平台不支持 Shell 扩展枚举|当前平台不支持网络监视|"
                 "当前平台不支持已安装软件枚举|当前平台不支持服务管理|"_s);
        QCOMPARE(logged, u"[ProcessService] 当前平台不支持进程枚举, 返回空列表|"
                         "[StartupService] 当前平台不支持启动项枚举|"
                         "[NetMonitorService] 当前平台不支持 TCP 枚举|"
                         "[UninstallService] 当前平台不支持已安装软件枚举|"
                         "[ServiceManagerService] 当前平台不支持服务枚举|"
                         "[SignatureService] 当前平台不支持 Authenticode 签名验证|"_s);
        QVERIFY(unsupported::failedListing<int>(nullptr, u"nobody asks why"_s).isEmpty());
    }

    void changes()
    {
        const QString name = u"x"_s;
        auto& manager = service<ServiceManagerService>();
        auto& unlock = service<FileUnlockService>();
        for (const OpResult& result :
             {manager.startService(name), manager.stopService(name), manager.setEnabled(name, true),
              manager.setStartType(name, ServiceStartType::Auto),
              service<StartupService>().setEnabled(StartupSource::hklm, name, true),
              service<UninstallService>().executeUninstall({0, {}, {}, {}, {}, {}, name, 0}),
              platform::moveToRecycleBin({name}), unlock.closeHandlesSync(), unlock.killProcess(1),
              platform::setStartsWithSession(true)})
            heard += (result.ok ? u"done"_s : result.message) + u'|';
        connect(&unlock, &FileUnlockService::operationLog, this,
                [](const QString& text, FileUnlockService::OpLevel level) {
                    heard += text + QString::number(int(level)) + u'|';
                });
        unlock.scheduleDeleteOnReboot({u"/"_s});
        const LockerProbe probe = unlock.probeLockers({u"/"_s});
        QVERIFY(!probe.ok && probe.processes.isEmpty());
        QCOMPARE(
            heard + probe.error,
            u"当前平台不支持服务管理|"_s.repeated(4) +
                u"当前平台不支持启动项启用/禁用|当前平台不支持执行卸载|当前平台不支持回收站删除|"
                "closeHandlesSync 仅支持 Windows|killProcess 仅支持 Windows|"
                "此平台不支持随会话启动。|scheduleDeleteOnReboot 仅支持 Windows2|FileUnlockService 仅支持 Windows 10+"_s);
    }

    void otherOperationsAnswerEmptyHanded()
    {
        const QString path = QCoreApplication::applicationFilePath();
        const auto& manager = service<ServiceManagerService>();
        QCOMPARE(manager.enumDependents(path) + manager.queryDependencies(path), QStringList());
        QCOMPARE(platform::processCommandLine(1) + service<SignatureService>().signerName(path),
                 QString());
        QVERIFY(platform::peerOf(-1)->user == platform::PeerUser::Own);
        QVERIFY(!platform::startsWithSession() && !platform::showNotification(path, path));
        QVERIFY(!platform::setKeepAwake(true) && !platform::emptyRecycleBin());
        QVERIFY(!platform::removeMarkOfTheWeb(path));
        QCOMPARE(platform::toggleForegroundWindowTopmost(), -1);
        using Words = std::array<quint64, 12>;
        using Sample = void (*)(SystemMetrics&);
        for (const Sample sample :
             {Sample(platform::sampleSystemMetrics), Sample(platform::sampleMemoryOnly)}) {
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
