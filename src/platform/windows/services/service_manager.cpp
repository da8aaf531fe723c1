// The manager's answers taken apart, and its errors in the words for the user.
#include "platform/windows/services/service_manager.h"

#include "platform/windows/sys/text.h"

#include <algorithm>
#include <array>
#include <utility>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

ServiceHandle openManager(DWORD access)
{
    return ServiceHandle(OpenSCManagerW(nullptr, nullptr, access));
}

ServiceHandle openService(SC_HANDLE manager, const QString& name, DWORD access)
{
    return ServiceHandle(manager == nullptr ? nullptr : OpenServiceW(manager, wide(name), access));
}

std::span<const wchar_t> ServiceAnswer::behind(const wchar_t* from) const
{
    const auto begin = reinterpret_cast<quintptr>(m_memory.data());
    const quintptr end = begin + m_memory.size();
    const auto at = reinterpret_cast<quintptr>(from);
    if (at < begin || at >= end || at % sizeof(wchar_t) != 0)
        return {};
    return {from, (end - at) / sizeof(wchar_t)};
}

QString ServiceAnswer::text(const wchar_t* from) const
{
    const auto rest = behind(from);
    return fromBuffer({rest.data(), rest.size()});
}

QStringList ServiceAnswer::texts(const wchar_t* from) const
{
    const auto rest = behind(from);
    QStringList all;
    for (auto begin = rest.begin(); begin != rest.end() && *begin != L'\0';) {
        const auto end = std::find(begin, rest.end(), L'\0');
        all += fromWide({begin, end});
        begin = end == rest.end() ? end : std::next(end);
    }
    return all;
}

ServiceState serviceStateFrom(DWORD state)
{
    switch (state) {
    case SERVICE_STOPPED:
        return ServiceState::Stopped;
    case SERVICE_START_PENDING:
        return ServiceState::StartPending;
    case SERVICE_STOP_PENDING:
        return ServiceState::StopPending;
    case SERVICE_RUNNING:
        return ServiceState::Running;
    case SERVICE_CONTINUE_PENDING:
        return ServiceState::ContinuePending;
    case SERVICE_PAUSE_PENDING:
        return ServiceState::PausePending;
    case SERVICE_PAUSED:
        return ServiceState::Paused;
    default:
        return ServiceState::Unknown;
    }
}

ServiceStartType startTypeFrom(DWORD startType, bool isDelayed)
{
    switch (startType) {
    case SERVICE_BOOT_START:
        return ServiceStartType::Boot;
    case SERVICE_SYSTEM_START:
        return ServiceStartType::System;
    case SERVICE_AUTO_START:
        return isDelayed ? ServiceStartType::AutoDelayed : ServiceStartType::Auto;
    case SERVICE_DEMAND_START:
        return ServiceStartType::Manual;
    case SERVICE_DISABLED:
        return ServiceStartType::Disabled;
    default:
        return ServiceStartType::Unknown;
    }
}

ServiceAnswer configurationOf(SC_HANDLE service)
{
    return ServiceAnswer::of([service](BYTE* buffer, DWORD size, DWORD* needed) {
        return QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer), size,
                                   needed);
    });
}

bool isDelayed(SC_HANDLE service)
{
    SERVICE_DELAYED_AUTO_START_INFO info{};
    DWORD needed = 0;
    return QueryServiceConfig2W(service, SERVICE_CONFIG_DELAYED_AUTO_START_INFO,
                                reinterpret_cast<BYTE*>(&info), sizeof info, &needed) != FALSE &&
           info.fDelayedAutostart != FALSE;
}

QString serviceErrorText(DWORD code)
{
    static constexpr std::array<std::pair<DWORD, const char*>, 16> texts{{
        {ERROR_ACCESS_DENIED, "没有权限,需要以管理员身份运行"},
        {ERROR_DEPENDENT_SERVICES_RUNNING, "有正在运行的服务依赖它"},
        {ERROR_INVALID_SERVICE_CONTROL, "该服务不接受停止"},
        {ERROR_SERVICE_REQUEST_TIMEOUT, "服务没有及时响应"},
        {ERROR_SERVICE_DATABASE_LOCKED, "服务数据库已被锁定,请稍后再试"},
        {ERROR_SERVICE_ALREADY_RUNNING, "服务已在运行"},
        {ERROR_SERVICE_DISABLED, "服务已被禁用,请先更改启动类型"},
        {ERROR_SERVICE_DOES_NOT_EXIST, "找不到该服务"},
        {ERROR_SERVICE_CANNOT_ACCEPT_CTRL, "服务现在不能接受请求,请稍后再试"},
        {ERROR_SERVICE_NOT_ACTIVE, "服务没有在运行"},
        {ERROR_EXCEPTION_IN_SERVICE, "服务在处理请求时出错"},
        {ERROR_SERVICE_DEPENDENCY_FAIL, "它依赖的服务无法启动"},
        {ERROR_SERVICE_LOGON_FAILED, "服务的账户登录失败"},
        {ERROR_SERVICE_MARKED_FOR_DELETE, "该服务已标记为删除"},
        {ERROR_SERVICE_DEPENDENCY_DELETED, "它依赖的服务不存在或已标记为删除"},
        {ERROR_PROCESS_ABORTED, "服务进程意外终止"},
    }};
    const auto* const found = std::find_if(
        texts.begin(), texts.end(), [code](const auto& entry) { return entry.first == code; });
    if (found == texts.end())
        return errorText(code);
    return u"%1 (错误 %2)"_s.arg(QString::fromUtf8(found->second), QString::number(code));
}

QStringList dependentsOf(SC_HANDLE service, bool onlyActive, DWORD* error)
{
    DWORD count = 0;
    const auto answer = ServiceAnswer::of([&](BYTE* buffer, DWORD size, DWORD* needed) {
        return EnumDependentServicesW(service, onlyActive ? SERVICE_ACTIVE : SERVICE_STATE_ALL,
                                      reinterpret_cast<ENUM_SERVICE_STATUSW*>(buffer), size, needed,
                                      &count);
    });
    *error = answer.isEmpty() ? GetLastError() : ERROR_SUCCESS;
    QStringList names;
    for (const auto& row : answer.records<ENUM_SERVICE_STATUSW>(count))
        names += answer.text(row.lpServiceName);
    names.sort(Qt::CaseInsensitive);
    return names;
}

} // namespace korvane::windows_platform
