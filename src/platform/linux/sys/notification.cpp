// The notification service of the session, over a connection of its own that nobody waits for.
#include "platform/notification.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <poll.h>
#include <systemd/sd-bus.h>

namespace korvane {

namespace {

constexpr auto service = "org.freedesktop.Notifications";
constexpr auto path = "/org/freedesktop/Notifications";

struct CloseBus
{
    // Not the flushing one, which waits for the peer without a limit.
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using UniqueBus = std::unique_ptr<sd_bus, CloseBus>;

class Notification final : public QObject
{
public:
    explicit Notification(UniqueBus bus)
        : m_bus(std::move(bus)), m_readable(sd_bus_get_fd(m_bus.get()), QSocketNotifier::Read),
          m_writable(sd_bus_get_fd(m_bus.get()), QSocketNotifier::Write)
    {
        connect(&m_readable, &QSocketNotifier::activated, this, &Notification::proceed);
        connect(&m_writable, &QSocketNotifier::activated, this, &Notification::proceed);
    }
    ~Notification() override
    {
        if (m_id != 0)
            sd_bus_call_method_async(m_bus.get(), nullptr, service, path, service,
                                     "CloseNotification", nullptr, nullptr, "u", m_id);
    }
    Q_DISABLE_COPY_MOVE(Notification)

    /// The text may be taken for markup.
    bool show(const QString& title, const QString& text)
    {
        constexpr int critical = 2; // Stays, and is shown while others are not.
        const QByteArray program = QCoreApplication::applicationName().toUtf8();
        const int sent = sd_bus_call_method_async(
            m_bus.get(), nullptr, service, path, service, "Notify", keepId, this, "susssasa{sv}i",
            program.constData(), 0U, program.constData(), title.toUtf8().constData(),
            text.toHtmlEscaped().toUtf8().constData(), 0, 2, "urgency", "y", critical,
            "desktop-entry", "s", program.constData(), -1);
        return sent >= 0;
    }

private:
    static int keepId(sd_bus_message* reply, void* notification, sd_bus_error* /*error*/)
    {
        // An error has no number to read.
        static_cast<void>(
            sd_bus_message_read(reply, "u", &static_cast<Notification*>(notification)->m_id));
        return 0;
    }

    /// Connecting, sending and receiving, as far as they go now.
    void proceed()
    {
        constexpr int maxSteps = 64; // Whoever else is on the bus may send without an end.
        int result = 1;
        for (int i = 0; i < maxSteps && result > 0; ++i)
            result = sd_bus_process(m_bus.get(), nullptr);
        const int events = result < 0 ? 0 : sd_bus_get_events(m_bus.get());
        m_readable.setEnabled(events > 0 && (events & POLLIN) != 0);
        m_writable.setEnabled(events > 0 && (events & POLLOUT) != 0);
    }

    UniqueBus m_bus;
    QSocketNotifier m_readable;
    QSocketNotifier m_writable;
    quint32 m_id = 0; ///< By which the service knows it; 0 until it says so.
};

} // namespace

std::unique_ptr<QObject> platform::showNotification(const QString& title, const QString& text)
{
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_user(&bus); // Begins to connect.
    UniqueBus opened(bus);
    if (result < 0)
        return nullptr;
    auto notification = std::make_unique<Notification>(std::move(opened));
    return notification->show(title, text) ? std::move(notification) : nullptr;
}

} // namespace korvane
