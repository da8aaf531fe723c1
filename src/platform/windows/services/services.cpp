// Services and drivers, as the service control manager lists them, and what they need of one another.
#include "platform/services.h"

#include "platform/windows/services/service_manager.h"
#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <algorithm>
#include <string>

#include <shlwapi.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

/// How long the manager may take for all that is asked in one operation.
constexpr std::chrono::seconds answerLimit(5);

/// More services than any machine has: a longer list is not believed.
constexpr qsizetype maxServices = 20'000;

struct Listing
{
    QList<ServiceItem> items;
    QString error;
};

/// Whether a path is on a drive of this machine itself: no other is opened for a mere text.
bool isOnFixedDrive(const QString& path)
{
    constexpr qsizetype rootLength = 3; // "C:\"
    return path.size() > rootLength && path[1] == u':' && path[2] == u'\\' &&
           GetDriveTypeW(wide(path.first(rootLength))) == DRIVE_FIXED;
}

/// A text that may be a reference: "@file,-number" to one in a file, or "@driver.inf,%name%;text". As it
/// stands where it cannot be followed.
QString resolvedText(const QString& text)
{
    if (!text.startsWith(u'@'))
        return text;
    const qsizetype fallback = text.indexOf(u';');
    if (fallback >= 0)
        return text.sliced(fallback + 1);
    const QString reference = withVariables(text);
    if (!isOnFixedDrive(reference.sliced(1)))
        return text;
    constexpr std::size_t longest = 4096;
    std::wstring buffer(longest, L'\0');
    const HRESULT result =
        SHLoadIndirectString(wide(reference), buffer.data(), static_cast<UINT>(longest), nullptr);
    return SUCCEEDED(result) ? fromBuffer(buffer) : text;
}

QString descriptionOf(SC_HANDLE service)
{
    const auto answer = ServiceAnswer::of([service](BYTE* buffer, DWORD size, DWORD* needed) {
        return QueryServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, buffer, size, needed);
    });
    const auto* const description = answer.record<SERVICE_DESCRIPTIONW>();
    return description == nullptr ? QString()
                                  : resolvedText(answer.text(description->lpDescription));
}

/// Asks for what the list does not tell. What may not be asked, and what is gone by now, stays as listed.
void readConfiguration(SC_HANDLE manager, ServiceItem& item)
{
    const ServiceHandle service = openService(manager, item.name, SERVICE_QUERY_CONFIG);
    if (service == nullptr)
        return;
    const ServiceAnswer answer = configurationOf(service.get());
    if (const auto* const configuration = answer.record<QUERY_SERVICE_CONFIGW>()) {
        const DWORD startType = configuration->dwStartType;
        item.binaryPath = answer.text(configuration->lpBinaryPathName);
        item.startType =
            startTypeFrom(startType, startType == SERVICE_AUTO_START && isDelayed(service.get()));
    }
    item.description = descriptionOf(service.get());
}

ServiceItem itemOf(const ServiceAnswer& answer, const ENUM_SERVICE_STATUS_PROCESSW& row)
{
    ServiceItem item;
    item.name = answer.text(row.lpServiceName);
    item.displayName = resolvedText(answer.text(row.lpDisplayName));
    item.state = serviceStateFrom(row.ServiceStatusProcess.dwCurrentState);
    item.pid = row.ServiceStatusProcess.dwProcessId;
    return item;
}

/// The list alone. It is told in parts.
Listing listNames(SC_HANDLE manager)
{
    Listing listing;
    DWORD resume = 0;
    for (DWORD error = ERROR_MORE_DATA; error == ERROR_MORE_DATA;) {
        ServiceAnswer answer(ServiceAnswer::largestSize);
        DWORD needed = 0;
        DWORD count = 0;
        const BOOL isDone = EnumServicesStatusExW(
            manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32 | SERVICE_DRIVER, SERVICE_STATE_ALL,
            answer.buffer(), ServiceAnswer::largestSize, &needed, &count, &resume, nullptr);
        error = isDone != FALSE ? ERROR_SUCCESS : GetLastError();
        if (error != ERROR_SUCCESS && error != ERROR_MORE_DATA)
            return {{}, u"无法列出服务: %1"_s.arg(serviceErrorText(error))};
        const auto rows = answer.records<ENUM_SERVICE_STATUS_PROCESSW>(count);
        for (const auto& row : rows)
            listing.items += itemOf(answer, row);
        // One that is told in endless or empty parts would never end.
        if (rows.size() != count || (rows.empty() && error == ERROR_MORE_DATA) ||
            listing.items.size() > maxServices)
            return {{}, u"系统的服务列表无法识别"_s};
    }
    return listing;
}

Listing readServices(const std::atomic<bool>& isGivenUp)
{
    const ServiceHandle manager = openManager(SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE);
    if (manager == nullptr)
        return {{}, u"无法连接服务控制管理器: %1"_s.arg(serviceErrorText(GetLastError()))};
    Listing listing = listNames(manager.get());
    for (ServiceItem& item : listing.items) {
        if (isGivenUp)
            break;
        readConfiguration(manager.get(), item);
    }
    std::stable_sort(listing.items.begin(), listing.items.end(),
                     [](const ServiceItem& a, const ServiceItem& b) {
                         return a.name.compare(b.name, Qt::CaseInsensitive) < 0;
                     });
    return listing;
}

} // namespace

} // namespace windows_platform

using namespace windows_platform;

QList<ServiceItem> platform::listServices(QStringList& shown, QString* error)
{
    const auto answered = askManager(answerLimit, readServices);
    const Listing listing = answered.value_or(
        Listing{{}, u"服务控制管理器在 %1 秒内没有应答"_s.arg(answerLimit.count())});
    if (error != nullptr)
        *error = listing.error;
    if (!listing.error.isEmpty())
        return {};
    shown.clear();
    for (const ServiceItem& item : listing.items)
        shown += item.name;
    return listing.items;
}

QList<QString> platform::servicesDependingOn(const QString& name)
{
    const auto ask = [name](const std::atomic<bool>&) {
        const ServiceHandle manager = openManager();
        const ServiceHandle service =
            openService(manager.get(), name, SERVICE_ENUMERATE_DEPENDENTS);
        DWORD error = ERROR_SUCCESS;
        return service == nullptr ? QStringList() : dependentsOf(service.get(), false, &error);
    };
    return askManager(answerLimit, ask).value_or(QStringList());
}

QList<QString> platform::servicesNeededBy(const QString& name)
{
    const auto ask = [name](const std::atomic<bool>&) {
        const ServiceHandle manager = openManager();
        const ServiceHandle service = openService(manager.get(), name, SERVICE_QUERY_CONFIG);
        if (service == nullptr)
            return QStringList();
        const ServiceAnswer answer = configurationOf(service.get());
        const auto* const configuration = answer.record<QUERY_SERVICE_CONFIGW>();
        if (configuration == nullptr)
            return QStringList();
        QStringList names = answer.texts(configuration->lpDependencies);
        names.removeIf([](const QString& one) { return one.startsWith(SC_GROUP_IDENTIFIERW); });
        return names;
    };
    return askManager(answerLimit, ask).value_or(QStringList());
}

} // namespace korvane
