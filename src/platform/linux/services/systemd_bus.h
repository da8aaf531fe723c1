// Calls to the systemd on the system bus, through systemd's own client library.
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QByteArrayView>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include <systemd/sd-bus.h>

namespace korvane::linux_platform {

struct UnrefMessage
{
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using UniqueMessage = std::unique_ptr<sd_bus_message, UnrefMessage>;

/// A text from the bus, shortened for a message.
QString briefText(QByteArrayView text);

/// The text of an error reply, shortened; empty when `reply` is none.
QString errorMessage(sd_bus_message* reply);

/// The array of texts that comes next in `reply`; empty when that is none.
QByteArrayList readTexts(sd_bus_message* reply);

/// A connection of its own to the system bus, made when first needed and closed with the object; it
/// starts no thread. All that is asked of it, connecting included, is done within one limit from
/// its construction, or from the latest allow(). It is of no more use after the first failure,
/// which error() tells.
class SystemdBus
{
public:
    explicit SystemdBus(std::chrono::milliseconds limit);

    /// Begins the next step, for which there is this much time.
    void allow(std::chrono::milliseconds limit);

    /// A call of the manager's method `member`, to which arguments may be appended.
    UniqueMessage managerCall(const char* member) const;

    /// A call that reads a property of the manager.
    UniqueMessage managerPropertyCall(const char* property) const;

    /// A call that has the bus deliver the manager's signals `member` from then on.
    UniqueMessage matchCall(const char* member) const;

    /// A call that reads a property of a unit. The unit's object path is known without asking;
    /// systemd loads the unit behind it, if it is not, and drops it again.
    UniqueMessage propertyCall(const QByteArray& unitName, const char* interface,
                               const char* property) const;

    /// Takes the reply, which may be an error, to the call at `index`; it may call fail().
    using Receiver = std::function<void(std::size_t index, sd_bus_message* reply)>;

    /// Makes all calls, many of them at a time, and hands over the replies as they come. False,
    /// with error(), when one got no reply.
    bool callAll(const std::vector<UniqueMessage>& calls, const Receiver& receive);

    /// Makes one call; its reply, which may be an error, or none, with error().
    UniqueMessage callOne(UniqueMessage call);

    /// Waits for a signal that `isAwaited` takes. What comes from other than `sender` is no signal
    /// of it: anyone on the bus may send us some. None, with error(), when it does not come.
    UniqueMessage awaitSignal(const QByteArray& sender,
                              const std::function<bool(sd_bus_message* signal)>& isAwaited);

    /// Ends the use of this connection, with the reason; always false.
    bool fail(const QString& reason);

    /// Why the connection failed, for the user; empty while all is well.
    QString error() const { return m_error; }

    /// Whether it failed because the time was up.
    bool isOutOfTime() const { return m_isOutOfTime; }

private:
    struct CloseBus
    {
        // Not the flushing one, which waits for the peer without a limit.
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    };

    UniqueMessage newCall(const char* service, const char* path, const char* interface,
                          const char* member) const;
    /// One step on the bus: sends, receives one message, or waits for the peer.
    UniqueMessage advance();
    bool failWith(int result);

    std::chrono::milliseconds m_limit;
    std::chrono::steady_clock::time_point m_deadline;
    std::unique_ptr<sd_bus, CloseBus> m_bus;
    QString m_error;
    bool m_isOutOfTime = false;
};

} // namespace korvane::linux_platform
