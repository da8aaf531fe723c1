// Changes to services, each waited for by what the service tells of its progress.
#include "platform/services.h"

#include "platform/portable/shown_services.h"
#include "platform/windows/services/service_manager.h"
#include "platform/windows/sys/text.h"

#include <algorithm>
#include <optional>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// For all of a change.
constexpr std::chrono::seconds changeLimit(30);

/// A service that ends this soon after its start does not do what it was started for.
constexpr milliseconds settling(300);

bool isPending(DWORD state)
{
    return state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING ||
           state == SERVICE_CONTINUE_PENDING || state == SERVICE_PAUSE_PENDING;
}

OpResult failed(const QString& action, const QString& why)
{
    return {false, u"%1失败: %2"_s.arg(action, why)};
}

/// The changes of one service. Each step that fails says why in m_problem.
class ServiceControl
{
public:
    ServiceControl(const QString& name, DWORD access, const std::atomic<bool>& isGivenUp)
        : m_manager(openManager()), m_service(openService(m_manager.get(), name, access)),
          m_isGivenUp(isGivenUp)
    {
        if (m_service == nullptr)
            failBy(GetLastError());
    }

    OpResult start();
    OpResult stop();
    OpResult setStartType(ServiceStartType type);

private:
    bool fail(const QString& problem)
    {
        m_problem = problem;
        return false;
    }
    bool failBy(DWORD error) { return fail(serviceErrorText(error)); }

    bool readStatus();
    bool awaitEndOfChange(DWORD stateBefore = 0);
    bool beginChange();
    bool startIt();
    bool stopIt();
    bool runStart();
    QString reasonOfEnd() const;
    bool changeStartType(DWORD type);
    bool setDelayed(bool isDelayed);
    bool applyStartType(DWORD type, bool isDelayed);

    ServiceHandle m_manager;
    ServiceHandle m_service;
    const std::atomic<bool>& m_isGivenUp;
    SERVICE_STATUS_PROCESS m_status{};
    QString m_problem;
};

bool ServiceControl::readStatus()
{
    DWORD needed = 0;
    return QueryServiceStatusEx(m_service.get(), SC_STATUS_PROCESS_INFO,
                                reinterpret_cast<BYTE*>(&m_status), sizeof m_status,
                                &needed) != FALSE ||
           failBy(GetLastError());
}

/// Waits until the service is in no state between others, nor in `stateBefore`: many tell of a stop only
/// some time after they were asked. One whose check point does not move within the time that it gave
/// itself makes no progress; many name too short a time, or none.
bool ServiceControl::awaitEndOfChange(DWORD stateBefore)
{
    constexpr milliseconds shortestPause(50);
    constexpr milliseconds longestPause(1000);
    constexpr milliseconds leastPatience(10'000);

    const auto begin = Clock::now();
    auto lastProgress = begin;
    DWORD checkPoint = m_status.dwCheckPoint;
    DWORD state = m_status.dwCurrentState;
    while (isPending(m_status.dwCurrentState) || m_status.dwCurrentState == stateBefore) {
        const milliseconds hint(m_status.dwWaitHint);
        const auto now = Clock::now();
        if (m_status.dwCheckPoint != checkPoint || m_status.dwCurrentState != state)
            lastProgress = now;
        checkPoint = m_status.dwCheckPoint;
        state = m_status.dwCurrentState;
        if (m_isGivenUp || now - lastProgress > std::max(hint, leastPatience))
            return fail(
                u"服务没有进展,状态仍为%1"_s.arg(serviceStateLabel(serviceStateFrom(state))));
        // As the manager's documentation has it: a tenth of the hint, within limits. The first looks
        // come sooner, as most services are quick.
        const bool isEarly = now - begin < longestPause;
        const milliseconds pause = isEarly ? shortestPause : hint / 10;
        Sleep(static_cast<DWORD>(std::clamp(pause, shortestPause, longestPause).count()));
        if (!readStatus())
            return false;
    }
    return true;
}

/// Reads the status before a change, once another that goes on has ended. Drivers are not changed.
bool ServiceControl::beginChange()
{
    if (m_service == nullptr || !readStatus())
        return false;
    if ((m_status.dwServiceType & SERVICE_DRIVER) != 0)
        return fail(u"这是驱动程序,不能从此处启动或停止"_s);
    return awaitEndOfChange();
}

/// With which error the service says that it ended.
QString ServiceControl::reasonOfEnd() const
{
    if (m_status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR)
        return u",服务自身的错误码为 %1"_s.arg(m_status.dwServiceSpecificExitCode);
    return m_status.dwWin32ExitCode == NO_ERROR
               ? QString()
               : u": "_s + serviceErrorText(m_status.dwWin32ExitCode);
}

bool ServiceControl::startIt()
{
    if (m_isGivenUp)
        return false;
    if (StartServiceW(m_service.get(), 0, nullptr) == FALSE) {
        const DWORD error = GetLastError();
        if (error != ERROR_SERVICE_ALREADY_RUNNING)
            return failBy(error);
    }
    if (!readStatus() || !awaitEndOfChange())
        return false;
    if (m_status.dwCurrentState == SERVICE_RUNNING) {
        Sleep(static_cast<DWORD>(settling.count()));
        if (!readStatus())
            return false;
    }
    return m_status.dwCurrentState == SERVICE_RUNNING ||
           fail(u"启动后没有保持运行"_s + reasonOfEnd());
}

OpResult ServiceControl::start()
{
    const QString action = u"启动服务"_s;
    if (!beginChange())
        return failed(action, m_problem);
    if (m_status.dwCurrentState == SERVICE_RUNNING)
        return {true, u"服务已在运行"_s};
    if (m_status.dwCurrentState == SERVICE_PAUSED)
        return failed(action, u"服务处于暂停状态,请先停止它"_s);
    if (!startIt())
        return failed(action, m_problem);
    return {true, u"服务已启动"_s};
}

/// Stops no other service with it.
bool ServiceControl::stopIt()
{
    DWORD error = ERROR_SUCCESS;
    const QStringList dependents = dependentsOf(m_service.get(), true, &error);
    if (error != ERROR_SUCCESS)
        return fail(u"无法确定哪些服务依赖它: %1"_s.arg(serviceErrorText(error)));
    if (!dependents.isEmpty())
        return fail(u"有正在运行的服务依赖它,请先停止它们: %1"_s.arg(dependents.join(u", "_s)));
    SERVICE_STATUS status{};
    const DWORD stateBefore = m_status.dwCurrentState;
    if (m_isGivenUp)
        return false;
    if (ControlService(m_service.get(), SERVICE_CONTROL_STOP, &status) == FALSE) {
        error = GetLastError();
        if (error != ERROR_SERVICE_NOT_ACTIVE)
            return failBy(error);
    }
    if (!readStatus() || !awaitEndOfChange(stateBefore))
        return false;
    return m_status.dwCurrentState == SERVICE_STOPPED ||
           fail(u"停止请求已送达,但服务的状态为%1"_s.arg(
               serviceStateLabel(serviceStateFrom(m_status.dwCurrentState))));
}

OpResult ServiceControl::stop()
{
    const bool isReady = beginChange();
    if (isReady && m_status.dwCurrentState == SERVICE_STOPPED)
        return {true, u"服务没有在运行"_s};
    if (!isReady || !stopIt())
        return failed(u"停止服务"_s, m_problem);
    return {true, u"服务已停止"_s};
}

bool ServiceControl::changeStartType(DWORD type)
{
    if (m_isGivenUp)
        return false;
    return ChangeServiceConfigW(m_service.get(), SERVICE_NO_CHANGE, type, SERVICE_NO_CHANGE,
                                nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr) != FALSE ||
           failBy(GetLastError());
}

bool ServiceControl::setDelayed(bool isDelayed)
{
    if (m_isGivenUp)
        return false;
    SERVICE_DELAYED_AUTO_START_INFO info{isDelayed ? TRUE : FALSE};
    return ChangeServiceConfig2W(m_service.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &info) !=
               FALSE ||
           failBy(GetLastError());
}

bool ServiceControl::applyStartType(DWORD type, bool isDelayed)
{
    if (m_service == nullptr)
        return false;
    const ServiceAnswer answer = configurationOf(m_service.get());
    const auto* const configuration = answer.record<QUERY_SERVICE_CONFIGW>();
    if (configuration == nullptr)
        return failBy(GetLastError());
    if ((configuration->dwServiceType & SERVICE_DRIVER) != 0)
        return fail(u"这是驱动程序,不能从此处更改启动类型"_s);
    const DWORD before = configuration->dwStartType;
    if (before != type && !changeStartType(type))
        return false;
    if (type != SERVICE_AUTO_START || windows_platform::isDelayed(m_service.get()) == isDelayed ||
        setDelayed(isDelayed))
        return true;
    // Else a service that did not start by itself would now, undelayed.
    const QString problem = m_problem;
    if (before == type || changeStartType(before))
        return fail(problem);
    return fail(u"%1; 启动类型已改为自动,无法改回: %2"_s.arg(problem, m_problem));
}

OpResult ServiceControl::setStartType(ServiceStartType type)
{
    DWORD systemType = SERVICE_AUTO_START;
    switch (type) {
    case ServiceStartType::Auto:
    case ServiceStartType::AutoDelayed:
        break;
    case ServiceStartType::Manual:
        systemType = SERVICE_DEMAND_START;
        break;
    case ServiceStartType::Disabled:
        systemType = SERVICE_DISABLED;
        break;
    default:
        return {false, u"无效的启动类型"_s};
    }
    if (!applyStartType(systemType, type == ServiceStartType::AutoDelayed))
        return failed(u"设置启动类型"_s, m_problem);
    return {true, u"启动类型已改为%1"_s.arg(serviceStartTypeLabel(type))};
}

/// Does `change` to the service that the user was shown for `name`, opened for `access`.
template <typename Change>
OpResult changeShown(const QString& name, const QStringList& shown, DWORD access, Change change)
{
    return platform::changeShownService(name, shown, [access, &change](const QString& shownName) {
        const auto result = askManager(changeLimit, [=](const std::atomic<bool>& isGivenUp) {
            ServiceControl service(shownName, access, isGivenUp);
            return change(service);
        });
        return result.value_or(OpResult{
            false,
            u"服务控制管理器在 %1 秒内没有完成请求,之后仍可能生效"_s.arg(changeLimit.count())});
    });
}

} // namespace

} // namespace windows_platform

using windows_platform::changeShown;
using windows_platform::ServiceControl;

OpResult platform::startService(const QString& name, const QStringList& shown)
{
    return changeShown(name, shown, SERVICE_START | SERVICE_QUERY_STATUS,
                       [](ServiceControl& service) { return service.start(); });
}

OpResult platform::stopService(const QString& name, const QStringList& shown)
{
    return changeShown(name, shown,
                       SERVICE_STOP | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS,
                       [](ServiceControl& service) { return service.stop(); });
}

OpResult platform::setServiceEnabled(const QString& name, bool enabled, const QStringList& shown)
{
    return setServiceStartType(name, enabled ? ServiceStartType::Auto : ServiceStartType::Disabled,
                               shown);
}

OpResult platform::setServiceStartType(const QString& name, ServiceStartType type,
                                       const QStringList& shown)
{
    return changeShown(name, shown, SERVICE_CHANGE_CONFIG | SERVICE_QUERY_CONFIG,
                       [type](ServiceControl& service) { return service.setStartType(type); });
}

} // namespace korvane
