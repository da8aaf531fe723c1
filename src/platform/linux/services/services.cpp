// Services: the service units of systemd, and what they need of one another.
#include "platform/linux/services/services.h"

#include "platform/linux/services/systemd_bus.h"
#include "platform/linux/services/unit_files.h"
#include "platform/linux/sys/text.h"

#include <array>
#include <set>
#include <span>

namespace korvane {

using namespace Qt::StringLiterals;

namespace linux_platform {

namespace {

constexpr QByteArrayView serviceSuffix(".service");

/// How long systemd may take for all that is asked in one operation.
constexpr std::chrono::seconds answerLimit(5);

/// More units than any machine has: a longer list is not believed.
constexpr int maxUnits = 20'000;

constexpr auto unitInterface = "org.freedesktop.systemd1.Unit";
constexpr auto serviceInterface = "org.freedesktop.systemd1.Service";

/// Reads one of the two lists; false when it is damaged or too long.
bool readList(sd_bus_message* reply, bool isOfFiles, ListedServices& services)
{
    const char* rowSignature = isOfFiles ? "(ss)" : "(ssssssouso)";
    std::array<const char*, 4> text{};
    int result = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, rowSignature);
    for (int rows = 0; result > 0 && rows <= maxUnits; ++rows) {
        // As many of these as the signature has; what is not needed has no place.
        result = sd_bus_message_read(reply, rowSignature, text.data(), &text[1], &text[2], &text[3],
                                     nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        if (result > 0 && isOfFiles)
            addUnitFile(services, text[0], text[1]);
        else if (result > 0)
            addLoadedUnit(services, text[0], text[1], text[2], text[3]);
    }
    return result == 0;
}

/// The services of both lists; none when the bus failed.
ListedServices listNames(SystemdBus& bus)
{
    std::vector<UniqueMessage> calls;
    calls.push_back(bus.managerCall("ListUnitsByPatterns"));
    calls.push_back(bus.managerCall("ListUnitFilesByPatterns"));
    for (const UniqueMessage& call : calls)
        sd_bus_message_append(call.get(), "asas", 0, 1, "*.service");
    ListedServices services;
    bus.callAll(calls, [&](std::size_t index, sd_bus_message* reply) {
        if (sd_bus_message_is_method_error(reply, nullptr) > 0)
            bus.fail(u"systemd 拒绝列出服务: %1"_s.arg(errorMessage(reply)));
        else if (!readList(reply, index == 1, services))
            bus.fail(u"systemd 的服务列表无法识别"_s);
    });
    return services;
}

QString readText(sd_bus_message* reply)
{
    const char* text = nullptr;
    return sd_bus_message_read(reply, "v", "s", &text) > 0 ? textFromSystem(text) : QString();
}

/// One word of a command line, quoted where it would not be read back as it is: as in a unit's file,
/// with ";" between commands.
QByteArray quotedWord(const QByteArray& word)
{
    const auto isControl = [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; };
    QByteArray escaped;
    bool needsQuotes = word.isEmpty();
    for (const char c : word) {
        needsQuotes |= isControl(c) || QByteArrayView(" \"'\\;").contains(c);
        if (isControl(c))
            escaped.append("\\x").append(QByteArray(1, c).toHex());
        else if (c == '"' || c == '\\')
            escaped.append('\\').append(c);
        else
            escaped.append(c);
    }
    return needsQuotes ? '"' + escaped + '"' : word;
}

/// The commands of ExecStart, each its program and the arguments after the name it is given. Only
/// services of Type=oneshot may have more than one.
QString readCommandLine(sd_bus_message* reply)
{
    QByteArrayList commands;
    const char* program = nullptr;
    sd_bus_message_enter_container(reply, SD_BUS_TYPE_VARIANT, "a(sasbttttuii)");
    sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "(sasbttttuii)");
    while (sd_bus_message_enter_container(reply, SD_BUS_TYPE_STRUCT, "sasbttttuii") > 0 &&
           sd_bus_message_read(reply, "s", &program) > 0) {
        QByteArrayList words{quotedWord(program)};
        for (const QByteArray& argument : readTexts(reply).mid(1))
            words.append(quotedWord(argument));
        commands.append(words.join(' '));
        sd_bus_message_skip(reply, "bttttuii");
        sd_bus_message_exit_container(reply);
    }
    return textFromSystem(commands.join("; "));
}

/// Asks for what the lists do not tell. A service that is gone by now keeps what they told.
void readProperties(SystemdBus& bus, ListedServices& services)
{
    using Reader = void (*)(sd_bus_message*, ServiceItem&);
    std::vector<UniqueMessage> calls;
    std::vector<std::pair<Reader, ServiceItem*>> readers; // of the calls
    for (ListedService& service : services) {
        const auto ask = [&](const char* interface, const char* property, Reader reader) {
            calls.push_back(bus.propertyCall(unitNameOf(service.item.name), interface, property));
            readers.emplace_back(reader, &service.item);
        };
        ask(unitInterface, "Documentation", [](sd_bus_message* reply, ServiceItem& item) {
            sd_bus_message_enter_container(reply, SD_BUS_TYPE_VARIANT, "as");
            item.description = textFromSystem(readTexts(reply).join(' '));
        });
        ask(serviceInterface, "ExecStart", [](sd_bus_message* reply, ServiceItem& item) {
            item.binaryPath = readCommandLine(reply);
        });
        if (!service.isLoaded) {
            ask(unitInterface, "Description", [](sd_bus_message* reply, ServiceItem& item) {
                item.displayName = readText(reply);
            });
        }
        if (service.isActive) {
            ask(serviceInterface, "MainPID", [](sd_bus_message* reply, ServiceItem& item) {
                sd_bus_message_read(reply, "v", "u", &item.pid);
            });
        }
        // Such as a template's instance. Asked for, it costs systemd a search of its folders.
        if (!service.hasFile) {
            ask(unitInterface, "UnitFileState", [](sd_bus_message* reply, ServiceItem& item) {
                item.startType = startTypeFrom(readText(reply).toUtf8());
            });
        }
    }
    bus.callAll(calls, [&readers](std::size_t index, sd_bus_message* reply) {
        const auto& [reader, item] = readers[index];
        reader(reply, *item);
    });
}

/// The services that any of the unit properties `relations` of a service names, sorted, each once;
/// empty on failure.
QList<QString> relatedServices(const QString& serviceName, std::span<const char* const> relations)
{
    const QByteArray unitName = unitNameOf(serviceName);
    if (!serviceNameOf(unitName))
        return {};
    SystemdBus bus(answerLimit);
    std::vector<UniqueMessage> calls;
    for (const char* relation : relations)
        calls.push_back(bus.propertyCall(unitName, unitInterface, relation));
    std::set<QString> names;
    const bool answered = bus.callAll(calls, [&](std::size_t, sd_bus_message* reply) {
        if (sd_bus_message_enter_container(reply, SD_BUS_TYPE_VARIANT, "as") <= 0)
            bus.fail(u"systemd 没有给出 %1 的依赖关系"_s.arg(serviceName));
        for (const QByteArray& related : readTexts(reply)) {
            if (const auto name = serviceNameOf(related))
                names.insert(*name);
        }
    });
    return answered ? QList<QString>(names.begin(), names.end()) : QList<QString>();
}

} // namespace

std::optional<QString> serviceNameOf(QByteArrayView unitName)
{
    if (!isUnitName(unitName) || !unitName.endsWith(serviceSuffix))
        return std::nullopt;
    const QByteArrayView name = unitName.chopped(serviceSuffix.size());
    const qsizetype at = name.indexOf('@');
    if (at == 0 || at == name.size() - 1)
        return std::nullopt;
    return textFromSystem(name);
}

QByteArray unitNameOf(const QString& serviceName)
{
    return serviceName.toUtf8().append(serviceSuffix);
}

ServiceState serviceStateFrom(QByteArrayView activeState)
{
    if (activeState == "active" || activeState == "reloading" || activeState == "refreshing")
        return ServiceState::Running;
    if (activeState == "activating")
        return ServiceState::StartPending;
    if (activeState == "deactivating")
        return ServiceState::StopPending;
    if (activeState == "inactive" || activeState == "failed")
        return ServiceState::Stopped;
    return ServiceState::Unknown;
}

ServiceStartType startTypeFrom(QByteArrayView fileState)
{
    constexpr std::array<QByteArrayView, 7> manual{
        "static", "indirect", "generated", "transient", "disabled", "linked", "linked-runtime"};
    if (fileState == "enabled" || fileState == "enabled-runtime")
        return ServiceStartType::Auto;
    if (fileState == "masked" || fileState == "masked-runtime")
        return ServiceStartType::Disabled;
    return std::find(manual.begin(), manual.end(), fileState) == manual.end()
               ? ServiceStartType::Unknown
               : ServiceStartType::Manual;
}

void addLoadedUnit(ListedServices& services, QByteArrayView unitName, QByteArrayView description,
                   QByteArrayView loadState, QByteArrayView activeState)
{
    const auto name = serviceNameOf(unitName);
    // A file may go while its service runs on.
    if (!name || (loadState == "not-found" && activeState == "inactive"))
        return;
    ListedService& service = services[*name];
    service.item.name = *name;
    service.item.displayName = textFromSystem(description);
    service.item.state = serviceStateFrom(activeState);
    service.isLoaded = true;
    service.isActive = activeState != "inactive";
}

void addUnitFile(ListedServices& services, QByteArrayView path, QByteArrayView state)
{
    const auto name = serviceNameOf(path.sliced(path.lastIndexOf('/') + 1));
    if (!name || state == "alias")
        return;
    ListedService& service = services[*name];
    service.item.name = *name;
    service.item.startType = startTypeFrom(state);
    if (!service.isLoaded)
        service.item.state = ServiceState::Stopped;
    service.hasFile = true;
}

QList<ServiceItem> listServices(std::chrono::milliseconds limit, QStringList& shown, QString* error)
{
    SystemdBus bus(limit);
    ListedServices services = listNames(bus);
    readProperties(bus, services);
    if (error != nullptr)
        *error = bus.error();
    QList<ServiceItem> items;
    for (const ListedService& service : std::as_const(services))
        items.append(service.item);
    if (!bus.error().isEmpty())
        return {};
    shown = services.keys();
    return items;
}

} // namespace linux_platform

QList<ServiceItem> platform::listServices(QStringList& shown, QString* error)
{
    return linux_platform::listServices(linux_platform::answerLimit, shown, error);
}

QList<QString> platform::servicesDependingOn(const QString& name)
{
    // Who needs it, or stops with it.
    static constexpr std::array<const char*, 4> relations{"RequiredBy", "RequisiteOf", "BoundBy",
                                                          "ConsistsOf"};
    return linux_platform::relatedServices(name, relations);
}

QList<QString> platform::servicesNeededBy(const QString& name)
{
    static constexpr std::array<const char*, 3> relations{"Requires", "Requisite", "BindsTo"};
    return linux_platform::relatedServices(name, relations);
}

} // namespace korvane
