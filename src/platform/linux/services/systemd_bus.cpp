// Calls to the systemd on the system bus, many at a time and within one limit.
#include "platform/linux/services/systemd_bus.h"

#include "platform/linux/sys/text.h"

#include <cerrno>
#include <cstdlib>
#include <unordered_map>

namespace korvane::linux_platform {

using namespace Qt::StringLiterals;

namespace {

using namespace std::chrono;

/// A system bus refuses a connection's calls beyond 128 pending replies.
constexpr std::size_t maxCallsInFlight = 64;

constexpr auto systemdService = "org.freedesktop.systemd1";
constexpr auto managerPath = "/org/freedesktop/systemd1";
constexpr auto propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr auto managerInterface = "org.freedesktop.systemd1.Manager";

/// What an error reply says of the bus or of systemd as a whole; empty when it is about the call.
QString troubleOf(sd_bus_message* reply)
{
    const auto is = [reply](const char* name) {
        return sd_bus_message_is_method_error(reply, name) > 0;
    };
    if (is(SD_BUS_ERROR_SERVICE_UNKNOWN) || is(SD_BUS_ERROR_NAME_HAS_NO_OWNER))
        return u"系统总线上没有 systemd"_s;
    if (is(SD_BUS_ERROR_NO_REPLY) || is(SD_BUS_ERROR_LIMITS_EXCEEDED))
        return u"systemd 未能应答: %1"_s.arg(errorMessage(reply));
    return {};
}

} // namespace

QString briefText(QByteArrayView text)
{
    constexpr qsizetype longest = 300;
    return textFromSystem(text).left(longest);
}

QString errorMessage(sd_bus_message* reply)
{
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    return error == nullptr ? QString() : briefText(error->message);
}

QByteArrayList readTexts(sd_bus_message* reply)
{
    QByteArrayList texts;
    const char* text = nullptr;
    if (sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "s") > 0) {
        while (sd_bus_message_read(reply, "s", &text) > 0)
            texts.append(text);
        sd_bus_message_exit_container(reply);
    }
    return texts;
}

SystemdBus::SystemdBus(milliseconds limit)
{
    allow(limit);
    // Neither connects nor authenticates to the end: advance() does, within the limit.
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_system(&bus);
    m_bus.reset(bus);
    // The peer took the connection and ended it at once, which may also show at any later step.
    if (result == -EPIPE || result == -ECONNRESET)
        failWith(result);
    else if (result < 0)
        fail(u"无法连接系统总线: %1"_s.arg(qt_error_string(-result)));
}

void SystemdBus::allow(milliseconds limit)
{
    m_limit = limit;
    m_deadline = steady_clock::now() + limit;
}

UniqueMessage SystemdBus::newCall(const char* service, const char* path, const char* interface,
                                  const char* member) const
{
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(m_bus.get(), &call, service, path, interface, member);
    // Else the bus would try, for a while, to start a systemd.
    sd_bus_message_set_auto_start(call, 0);
    return UniqueMessage(call);
}

UniqueMessage SystemdBus::managerCall(const char* member) const
{
    return newCall(systemdService, managerPath, managerInterface, member);
}

UniqueMessage SystemdBus::managerPropertyCall(const char* property) const
{
    UniqueMessage call = newCall(systemdService, managerPath, propertiesInterface, "Get");
    sd_bus_message_append(call.get(), "ss", managerInterface, property);
    return call;
}

UniqueMessage SystemdBus::matchCall(const char* member) const
{
    constexpr auto bus = "org.freedesktop.DBus";
    UniqueMessage call = newCall(bus, "/org/freedesktop/DBus", bus, "AddMatch");
    const QByteArray rule = QByteArray("type='signal',sender='") + systemdService + "',path='" +
                            managerPath + "',interface='" + managerInterface + "',member='" +
                            member + "'";
    sd_bus_message_append(call.get(), "s", rule.constData());
    return call;
}

UniqueMessage SystemdBus::propertyCall(const QByteArray& unitName, const char* interface,
                                       const char* property) const
{
    char* path = nullptr;
    sd_bus_path_encode("/org/freedesktop/systemd1/unit", unitName.constData(), &path);
    UniqueMessage call = newCall(systemdService, path, propertiesInterface, "Get");
    std::free(path); // NOLINT(cppcoreguidelines-no-malloc): the library's own allocation
    sd_bus_message_append(call.get(), "ss", interface, property);
    return call;
}

bool SystemdBus::callAll(const std::vector<UniqueMessage>& calls, const Receiver& receive)
{
    std::unordered_map<uint64_t, std::size_t> inFlight; // the calls' indices by their cookies
    std::size_t sent = 0;
    while (m_error.isEmpty() && (sent < calls.size() || !inFlight.empty())) {
        uint64_t cookie = 0;
        for (; sent < calls.size() && inFlight.size() < maxCallsInFlight; ++sent) {
            const int result = sd_bus_send(m_bus.get(), calls[sent].get(), &cookie);
            if (result < 0)
                return failWith(result);
            inFlight[cookie] = sent;
        }
        const UniqueMessage reply = advance();
        if (!reply || sd_bus_message_get_reply_cookie(reply.get(), &cookie) < 0)
            continue;
        const auto call = inFlight.extract(cookie);
        if (const QString trouble = troubleOf(reply.get()); !trouble.isEmpty())
            fail(trouble);
        else if (!call.empty())
            receive(call.mapped(), reply.get());
    }
    return m_error.isEmpty();
}

UniqueMessage SystemdBus::callOne(UniqueMessage call)
{
    UniqueMessage reply;
    std::vector<UniqueMessage> calls;
    calls.push_back(std::move(call));
    callAll(calls, [&reply](std::size_t, sd_bus_message* received) {
        reply.reset(sd_bus_message_ref(received));
    });
    return reply;
}

UniqueMessage SystemdBus::awaitSignal(const QByteArray& sender,
                                      const std::function<bool(sd_bus_message*)>& isAwaited)
{
    while (m_error.isEmpty()) {
        UniqueMessage message = advance();
        if (message && sd_bus_message_get_sender(message.get()) == sender &&
            isAwaited(message.get()))
            return message;
    }
    return nullptr;
}

bool SystemdBus::fail(const QString& reason)
{
    m_error = reason;
    m_bus.reset();
    return false;
}

bool SystemdBus::failWith(int result)
{
    return fail(u"系统总线连接中断: %1"_s.arg(qt_error_string(-result)));
}

UniqueMessage SystemdBus::advance()
{
    sd_bus_message* received = nullptr;
    int result = sd_bus_process(m_bus.get(), &received);
    UniqueMessage message(received);
    const auto left = duration_cast<microseconds>(m_deadline - steady_clock::now()).count();
    if (left <= 0) {
        m_isOutOfTime = true;
        const bool isReady = sd_bus_is_ready(m_bus.get()) > 0;
        fail(u"%1在 %2 秒内没有应答"_s.arg(isReady ? u"systemd "_s : u"系统总线"_s,
                                           QString::number(duration<double>(m_limit).count())));
        return nullptr;
    }
    if (result == 0)
        result = sd_bus_wait(m_bus.get(), static_cast<uint64_t>(left));
    if (result < 0 && result != -EINTR)
        failWith(result);
    else if (sd_bus_is_open(m_bus.get()) <= 0)
        failWith(-ECONNRESET);
    return message;
}

} // namespace korvane::linux_platform
