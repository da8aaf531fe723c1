// Tests what every operation of the platform layer answers where there is no back end.
#include "core/file_unlock.h"
#include "core/network.h"
#include "core/processes.h"
#include "core/services.h"
#include "core/signatures.h"
#include "core/software.h"
#include "core/startup.h"
#include "platform/platform.h"
#include "support/fake_desktop.h"
#include "support/file_tree.h"
#include "support/mcp_client.h"

#include <QTest>

#include <array>
#include <bit>
#include <functional>

using namespace korvane;

namespace {

QStringList logged; ///< What the program wrote to its default log at information level.

void keepLogged(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtInfoMsg && QByteArrayView(context.category) == "default")
        logged.append(text);
}

template <typename Service> Service& service()
{
    return Singleton<Service>::instance();
}

/// The enumerations, in the order of their test data; each returns the number of its records.
std::array<std::function<qsizetype(QString*)>, 7> enumerations;

/// Fills `enumerations`: only an explicit instantiation may name a private member.
template <std::size_t Index, typename Service, auto Operation> struct Expose
{
    static qsizetype count(QString* error) { return (service<Service>().*Operation)(error).size(); }
    inline static const bool done = (enumerations.at(Index) = count, true);
};
template struct Expose<0, ProcessService, &ProcessService::enumPlatform>;
template struct Expose<1, StartupService, &StartupService::enumPlatform>;
template struct Expose<2, StartupService, &StartupService::enumScheduledTasksPlatform>;
template struct Expose<3, StartupService, &StartupService::enumShellExtensionsPlatform>;
template struct Expose<4, NetMonitorService, &NetMonitorService::enumPlatform>;
template struct Expose<5, UninstallService, &UninstallService::enumPlatform>;
template struct Expose<6, ServiceManagerService, &ServiceManagerService::enumPlatform>;

} // namespace

class TestUnsupportedPlatform : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_handler = qInstallMessageHandler(keepLogged); }
    void cleanupTestCase() { qInstallMessageHandler(m_handler); }

    void enumerationFailsAndLogsOnce_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("logLine");
        int index = 0;
        const auto row = [&index](const char* error, const char* logLine) {
            QTest::newRow(logLine)
                << index++ << QString::fromUtf8(error) << QString::fromUtf8(logLine);
        };
        row("当前平台不支持进程枚举", "[ProcessService] 当前平台不支持进程枚举, 返回空列表");
        row("当前平台不支持启动项管理", "[StartupService] 当前平台不支持启动项枚举");
        row("当前平台不支持计划任务枚举", "");
        row("当前平台不支持 Shell 扩展枚举", "");
        row("当前平台不支持网络监视", "[NetMonitorService] 当前平台不支持 TCP 枚举");
        row("当前平台不支持已安装软件枚举", "[UninstallService] 当前平台不支持已安装软件枚举");
        row("当前平台不支持服务管理", "[ServiceManagerService] 当前平台不支持服务枚举");
    }
    void enumerationFailsAndLogsOnce()
    {
        QFETCH(int, index);
        QFETCH(QString, logLine);
        const auto& enumerate = enumerations.at(static_cast<std::size_t>(index));
        logged.clear();
        QCOMPARE(enumerate(nullptr), 0);
        for (int i = 0; i < 3; ++i) {
            QString error = QStringLiteral("an older text");
            QCOMPARE(enumerate(&error), 0);
            QTEST(error, "expected");
        }
        QCOMPARE(logged, logLine.isEmpty() ? QStringList() : QStringList(logLine));
    }

    void toolsReportTheFailure()
    {
        test::Client client;
        for (const auto& tool :
             {QStringLiteral("list_processes"), QStringLiteral("get_process_tree")}) {
            const test::ToolReply reply = client.call(tool);
            QVERIFY(reply.isError);
            QCOMPARE(reply.text,
                     QStringLiteral("Tool '%1' failed: 当前平台不支持进程枚举").arg(tool));
        }
        const test::ToolReply reply =
            client.call(QStringLiteral("get_process_command_line"), {{QStringLiteral("pid"), 1}});
        QVERIFY(!reply.isError);
        QCOMPARE(reply.json().value(QStringLiteral("command_line")), QJsonValue(QString()));
        QVERIFY(!reply.json().value(QStringLiteral("note")).toString().isEmpty());
    }

    void writesAreRefused()
    {
        const QString name = QStringLiteral("x");
        UninstallEntry entry;
        entry.uninstallString = name;
        auto& manager = service<ServiceManagerService>();
        const QList<std::pair<OpResult, const char*>> writes{
            {manager.startService(name), "当前平台不支持服务管理"},
            {manager.stopService(name), "当前平台不支持服务管理"},
            {manager.setEnabled(name, true), "当前平台不支持服务管理"},
            {manager.setStartType(name, ServiceStartType::Auto), "当前平台不支持服务管理"},
            {service<StartupService>().setEnabled(StartupSource::hklm, name, true),
             "当前平台不支持启动项启用/禁用"},
            {service<UninstallService>().executeUninstall(entry), "当前平台不支持执行卸载"},
            {platform::moveToRecycleBin({name}), "当前平台不支持回收站删除"},
            {service<FileUnlockService>().closeHandlesSync(), "closeHandlesSync 仅支持 Windows"},
            {service<FileUnlockService>().killProcess(1), "killProcess 仅支持 Windows"},
        };
        for (const auto& [result, message] : writes) {
            QVERIFY2(!result.ok, message);
            QCOMPARE(result.message, QString::fromUtf8(message));
        }
    }

    void junkStaysWhereItIs()
    {
        test::FakeDesktop desktop;
        desktop.setAnswer({{"{\"granted\":true}\n"}});
        const QTemporaryDir directory;
        qputenv("LOCALAPPDATA", directory.path().toUtf8());
        test::makeTree(directory.path(), QStringLiteral("pip/cache/d/f=1"));
        const QJsonArray ids{QStringLiteral("pip_cache")};
        const test::ToolReply reply = test::Client().call(QStringLiteral("clean_junk"),
                                                          {{QStringLiteral("category_ids"), ids}});
        QCOMPARE(reply.text, QStringLiteral("Tool 'clean_junk' failed: 当前平台不支持回收站删除"));
        QCOMPARE(desktop.takeReceived().size(), 1);
        QVERIFY(QFile::exists(directory.filePath(QStringLiteral("pip/cache/d/f"))));
    }

    void otherOperationsAnswerEmptyHanded()
    {
        const QString path = QCoreApplication::applicationFilePath();
        QCOMPARE(service<ServiceManagerService>().enumDependents(path), QStringList());
        QCOMPARE(service<ServiceManagerService>().queryDependencies(path), QStringList());
        QVERIFY(!platform::setKeepAwake(true));
        QVERIFY(!platform::emptyRecycleBin());
        QVERIFY(!platform::removeMarkOfTheWeb(path));
        QCOMPARE(platform::toggleForegroundWindowTopmost(), -1);

        logged.clear();
        auto& signatures = service<SignatureService>();
        for (const QString& file : {path, path + QLatin1Char('2'), path + QLatin1Char('3')})
            QCOMPARE(signatures.verify(file), SignatureStatus::Unknown);
        QCOMPARE(logged, QStringList(QStringLiteral(
                             "[SignatureService] 当前平台不支持 Authenticode 签名验证")));
        QCOMPARE(signatures.signerName(path), QString());
    }

    void metricsAreZeros()
    {
        using Words = std::array<quint64, 12>;
        for (const auto sample : {&platform::sampleSystemMetrics, &platform::sampleMemoryOnly}) {
            Words words;
            words.fill(0x4141414141414141);
            auto metrics = std::bit_cast<SystemMetrics>(words);
            sample(metrics);
            QVERIFY(std::bit_cast<Words>(metrics) == Words{});
        }
    }

    void fileUnlockingReportsThroughSignals()
    {
        auto& unlock = service<FileUnlockService>();
        const QString probeError = QStringLiteral("FileUnlockService 仅支持 Windows 10+");
        QStringList heard;
        QObject listener;
        connect(&unlock, &FileUnlockService::queryFinished, &listener,
                [&heard] { heard.append(QStringLiteral("finished")); });
        connect(&unlock, &FileUnlockService::queryFailed, &listener,
                [&heard](const QString& reason) { heard.append(reason); });
        connect(&unlock, &FileUnlockService::operationLog, &listener,
                [&heard](const QString& message, FileUnlockService::OpLevel level) {
                    heard.append(QString::number(static_cast<int>(level)) + message);
                });
        const LockerProbe probe = unlock.probeLockers({QStringLiteral("/")});
        QVERIFY(!probe.ok && probe.processes.isEmpty());
        QCOMPARE(probe.error, probeError);
        QCOMPARE(heard, QStringList()); // neither a probe nor what follows speaks twice

        unlock.query({QStringLiteral("/")});
        unlock.closeHandles();
        unlock.scheduleDeleteOnReboot({QStringLiteral("/")});
        unlock.killProcesses({1, 2, 3});
        const QString kill = QStringLiteral("1killProcess 仅支持 Windows");
        const QStringList expected{probeError,
                                   QStringLiteral("2closeHandlesSync 仅支持 Windows"),
                                   QStringLiteral("2scheduleDeleteOnReboot 仅支持 Windows"),
                                   kill,
                                   kill,
                                   kill,
                                   QStringLiteral("1批量杀进程完成:成功 0 / 失败 3")};
        QCOMPARE(heard, expected);
    }

private:
    QtMessageHandler m_handler = nullptr;
};

QTEST_GUILESS_MAIN(TestUnsupportedPlatform)
#include "tst_unsupported_platform.moc"
