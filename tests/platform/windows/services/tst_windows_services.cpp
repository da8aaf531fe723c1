// Tests services on some of the test's own, which this program registers and then also is.
#include "core/services.h"
#include "platform/services.h"
#include "platform/windows/services/service_manager.h"
#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/text.h"
#include "support/mcp_client.h"
#include "support/table.h"

#include <QDir>
#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <string>

using namespace korvane;
using namespace korvane::windows_platform;
using namespace Qt::StringLiterals;

namespace {

SERVICE_STATUS_HANDLE statusHandle = nullptr;
HANDLE stopAsked = nullptr;
QByteArray behaviour;

void report(DWORD state, DWORD hint = 0, DWORD error = NO_ERROR)
{
    static DWORD checkPoint = 0;
    const bool isSettled = state == SERVICE_RUNNING || state == SERVICE_STOPPED;
    const DWORD accepted =
        state == SERVICE_RUNNING && behaviour != "stubborn" ? SERVICE_ACCEPT_STOP : 0;
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS,
                          state,
                          accepted,
                          error == NO_ERROR ? DWORD{NO_ERROR} : DWORD{ERROR_SERVICE_SPECIFIC_ERROR},
                          error,
                          isSettled ? 0 : ++checkPoint,
                          hint};
    SetServiceStatus(statusHandle, &status);
}

/// Takes 2 s to get there, each step within the time that is named.
void reportSlowly(DWORD state)
{
    for (int i = 0; behaviour == "slow" && i < 10; ++i) {
        report(state, 300);
        Sleep(200);
    }
}

DWORD WINAPI onControl(DWORD control, DWORD, void*, void*)
{
    if (control == SERVICE_CONTROL_STOP)
        SetEvent(stopAsked);
    return NO_ERROR;
}

void WINAPI serve(DWORD, wchar_t**)
{
    statusHandle = RegisterServiceCtrlHandlerExW(L"", onControl, nullptr);
    stopAsked = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    report(SERVICE_START_PENDING, 100);
    if (behaviour == "stuck")
        Sleep(60'000);
    reportSlowly(SERVICE_START_PENDING);
    report(SERVICE_RUNNING);
    if (behaviour != "ends")
        WaitForSingleObject(stopAsked, 120'000); // Nothing of a failed test stays for long.
    Sleep(100);                                  // Many tell of it some time after they were asked.
    report(SERVICE_STOP_PENDING, 1000);
    reportSlowly(SERVICE_STOP_PENDING);
    report(SERVICE_STOPPED, 0, behaviour == "ends" ? 7 : NO_ERROR);
}

/// A service, or a driver, that is removed with the object.
class TestService
{
    Q_DISABLE_COPY_MOVE(TestService)

public:
    explicit TestService(const char* how, const QString& dependencies = {},
                         DWORD type = SERVICE_WIN32_OWN_PROCESS, DWORD start = SERVICE_DEMAND_START)
        : name(u"KorvaneTest-%1-%2"_s.arg(GetCurrentProcessId()).arg(QLatin1String(how))),
          path(u"\"%1\" --service %2"_s.arg(
              QDir::toNativeSeparators(QCoreApplication::applicationFilePath()),
              QLatin1String(how)))
    {
        if (type != SERVICE_WIN32_OWN_PROCESS || QByteArrayView(how) == "no program")
            path = uR"(C:\nowhere\korvane.sys)"_s;
        const auto manager = openManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
        const QString display = u"Shown %1"_s.arg(name);
        m_service.reset(CreateServiceW(manager.get(), wide(name), wide(display), SERVICE_ALL_ACCESS,
                                       type, start, SERVICE_ERROR_IGNORE, wide(path), nullptr,
                                       nullptr, wide(dependencies), nullptr, nullptr));
        if (m_service == nullptr)
            qWarning().noquote() << "CreateService:" << lastErrorText();
    }
    ~TestService()
    {
        SERVICE_STATUS status{};
        ControlService(handle(), SERVICE_CONTROL_STOP, &status);
        for (int i = 0; i < 100 && processId() != 0; ++i) {
            if (behavesBadly || i == 80)
                TerminateProcess(openProcess(processId(), PROCESS_TERMINATE).get(), 1);
            Sleep(50);
        }
        DeleteService(handle());
    }

    SC_HANDLE handle() const { return m_service.get(); }

    SERVICE_STATUS_PROCESS status() const
    {
        SERVICE_STATUS_PROCESS status{};
        DWORD needed = 0;
        QueryServiceStatusEx(handle(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                             sizeof status, &needed);
        return status;
    }
    DWORD processId() const { return status().dwProcessId; }

    void describe(const wchar_t* text) const
    {
        SERVICE_DESCRIPTIONW description{const_cast<wchar_t*>(text)};
        ChangeServiceConfig2W(handle(), SERVICE_CONFIG_DESCRIPTION, &description);
    }

    QString name;
    QString path;
    bool behavesBadly = false;

private:
    ServiceHandle m_service;
};

ServiceManagerService& manager()
{
    return Singleton<ServiceManagerService>::instance();
}

QString said(const OpResult& result)
{
    return (result.ok ? u"+ "_s : u"- "_s) + result.message;
}

/// How a service behaves, what its start comes to, and its stop.
const test::Cases<const char*, const char*> behaviours{
    {"quick", "+ 服务已启动", "+ 服务已停止"},
    {"slow", "+ 服务已启动", "+ 服务已停止"},
    {"ends", "- 启动服务失败: 启动后没有保持运行,服务自身的错误码为 7", "+ 服务没有在运行"},
    {"stubborn", "+ 服务已启动", "- 停止服务失败: 该服务不接受停止 (错误 1052)"},
    {"stuck", "- 启动服务失败: 服务没有进展,状态仍为启动中…", nullptr},
    {"no program", "- 启动服务失败: *(错误 2)", "+ 服务没有在运行"},
};

using Type = ServiceStartType;

} // namespace

class TestServices : public QObject
{
    Q_OBJECT

    /// What a client is shown of a service; the listing makes it one that may be changed.
    static QString listed(const QString& name)
    {
        const auto rows = test::Client()
                              .call(u"list_services"_s)
                              .rows(u"entries"_s, "name display_name description binary_path state "
                                                  "start_type");
        const auto found = rows.filter(name + u'|');
        manager().listAll();
        return found.size() == 1 ? found.first().sliced(name.size() + 1) : found.join(u'\n');
    }

private Q_SLOTS:
    void listing()
    {
        const TestService service("listed");
        const TestService driver("driver", {}, SERVICE_KERNEL_DRIVER, SERVICE_SYSTEM_START);
        const QString shown = u"Shown %1|%2|%3|已停止|%4"_s;
        service.describe(L"What it is for");
        QCOMPARE(listed(service.name),
                 shown.arg(service.name, u"What it is for"_s, service.path, u"手动"_s));
        QCOMPARE(listed(driver.name), shown.arg(driver.name, QString(), driver.path, u"系统"_s));
        driver.describe(L"@oem1.inf,%name%;Of its driver");
        QVERIFY(listed(driver.name).contains(u"|Of its driver|"_s));
        // Nothing of another machine is opened for a text.
        service.describe(LR"(@\\host\share\text.dll,-1)");
        QVERIFY(listed(service.name).contains(uR"(|@\\host\share\text.dll,-1|)"_s));
    }

    void startAndStop_data() { test::addRows(behaviours); }
    void startAndStop()
    {
        const auto& [how, start, stop] = test::currentRow(behaviours);
        TestService service(how);
        service.behavesBadly = QByteArrayView(how).startsWith("stu");
        listed(service.name);
        const QString expected = QString::fromUtf8(start);
        const QString upper = service.name.toUpper();
        const QString started = said(manager().startService(upper));
        QVERIFY2(QRegularExpression::fromWildcard(expected).match(started).hasMatch(),
                 qPrintable(started));
        const bool runs = expected.startsWith(u'+');
        QCOMPARE(service.status().dwCurrentState == SERVICE_RUNNING, runs);
        if (runs) {
            QVERIFY(listed(service.name).contains(u"|运行中|"_s));
            QCOMPARE(said(manager().startService(upper)), u"+ 服务已在运行"_s);
        }
        if (stop == nullptr)
            return;
        QCOMPARE(said(manager().stopService(upper)), QString::fromUtf8(stop));
        QCOMPARE(service.status().dwCurrentState == SERVICE_STOPPED, stop[0] == '+');
    }

    void startTypes()
    {
        const TestService service("types");
        for (const Type type : {Type::Auto, Type::AutoDelayed, Type::Auto, Type::Manual,
                                Type::AutoDelayed, Type::Disabled, Type::Manual}) {
            listed(service.name);
            const QString label = serviceStartTypeLabel(type);
            QCOMPARE(said(manager().setStartType(service.name, type)),
                     u"+ 启动类型已改为%1"_s.arg(label));
            QVERIFY2(listed(service.name).endsWith(u'|' + label), qPrintable(label));
        }
        QCOMPARE(said(manager().setStartType(service.name, Type(7))), u"- 无效的启动类型"_s);
        QCOMPARE(said(manager().setEnabled(service.name, false)), u"+ 启动类型已改为已禁用"_s);
        QCOMPARE(said(manager().startService(service.name)),
                 u"- 启动服务失败: 服务已被禁用,请先更改启动类型 (错误 1058)"_s);
        QCOMPARE(said(manager().setEnabled(service.name, true)), u"+ 启动类型已改为自动"_s);
    }

    void dependents()
    {
        const TestService needed("needed");
        const TestService user("user", needed.name + QChar(0) + u"+Base"_s + QChar(0));
        listed(user.name);
        QCOMPARE(manager().enumDependents(u"korvane-nowhere"_s), QStringList());
        QCOMPARE(manager().queryDependencies(u"korvane-nowhere"_s), QStringList());
        if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr)
            QSKIP("Wine tells neither whom a service needs nor who needs it");
        QCOMPARE(manager().queryDependencies(user.name), QStringList{needed.name});
        QCOMPARE(manager().enumDependents(needed.name), QStringList{user.name});
        QCOMPARE(said(manager().startService(user.name)), u"+ 服务已启动"_s);
        QCOMPARE(said(manager().stopService(needed.name)),
                 u"- 停止服务失败: 有正在运行的服务依赖它,请先停止它们: "_s + user.name);
        QCOMPARE(needed.status().dwCurrentState, DWORD{SERVICE_RUNNING});
        QCOMPARE(said(manager().stopService(user.name)), u"+ 服务已停止"_s);
        QCOMPARE(said(manager().stopService(needed.name)), u"+ 服务已停止"_s);
    }

    void refusals()
    {
        const TestService driver("refused", {}, SERVICE_KERNEL_DRIVER);
        const TestService gone("gone");
        listed(driver.name);
        const QString refused = u"- %1失败: 这是驱动程序,不能从此处%2"_s;
        QCOMPARE(said(manager().startService(driver.name)),
                 refused.arg(u"启动服务"_s, u"启动或停止"_s));
        QCOMPARE(said(manager().stopService(driver.name)),
                 refused.arg(u"停止服务"_s, u"启动或停止"_s));
        QCOMPARE(said(manager().setStartType(driver.name, Type::Disabled)),
                 refused.arg(u"设置启动类型"_s, u"更改启动类型"_s));
        const QStringList twice{driver.name, driver.name.toUpper()};
        QVERIFY(platform::startService(driver.name, twice).message.startsWith(u"有多个服务"_s));
        QCOMPARE(platform::startService(gone.name, twice).message, u"找不到服务: "_s + gone.name);
        DeleteService(gone.handle()); // It is there until the last handle is closed.
        QCOMPARE(said(manager().setStartType(gone.name, Type::Auto)),
                 u"- 设置启动类型失败: 该服务已标记为删除 (错误 1072)"_s);
        QCOMPARE(platform::stopService(u"korvane-no"_s, {u"korvane-no"_s}).message,
                 u"停止服务失败: 找不到该服务 (错误 1060)"_s);
    }

    /// Only what lies in an answer is read.
    void damagedAnswers()
    {
        ServiceAnswer answer(16);
        auto* const texts = reinterpret_cast<wchar_t*>(answer.buffer());
        std::copy_n(L"ab\0c\0\0de", 8, texts);
        QCOMPARE(answer.text(texts + 6), u"de"_s); // Its end is cut off.
        QCOMPARE(answer.texts(texts), QStringList({u"ab"_s, u"c"_s}));
        QCOMPARE(answer.texts(texts + 6), QStringList{u"de"_s});
        QCOMPARE(answer.text(texts + 8) + answer.text(texts - 1) + answer.text(nullptr), QString());
        QVERIFY(answer.records<QUERY_SERVICE_CONFIGW>(1).empty());
        QCOMPARE(answer.records<DWORD>(4).size(), std::size_t{4});
        QVERIFY(answer.records<DWORD>(5).empty());
    }
};

int main(int argc, char* argv[])
{
    if (argc > 2 && QByteArrayView(argv[1]) == "--service") {
        behaviour = argv[2];
        std::wstring noName;
        const std::array services{SERVICE_TABLE_ENTRYW{noName.data(), serve},
                                  SERVICE_TABLE_ENTRYW{}};
        return StartServiceCtrlDispatcherW(services.data()) == FALSE;
    }
    const QCoreApplication application(argc, argv);
    TestServices test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_windows_services.moc"
