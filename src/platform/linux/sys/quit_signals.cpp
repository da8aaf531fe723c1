// The signals that end a program, brought into the event loop.
#include "platform/process_setup.h"

#include "platform/linux/sys/proc_fs.h"

#include <QSocketNotifier>

#include <array>
#include <csignal>

#include <sys/eventfd.h>
#include <unistd.h>

namespace korvane {

namespace {

using linux_platform::UniqueFd;

constexpr std::array quitSignals{SIGTERM, SIGINT, SIGHUP};

volatile std::sig_atomic_t eventDescriptor = -1;

/// Any thread may be interrupted, other libraries' too: all that may be done is a write.
void tellEventLoop(int /*signal*/)
{
    const int before = errno;
    const quint64 one = 1;
    static_cast<void>(!::write(eventDescriptor, &one, sizeof one));
    errno = before;
}

/// But for those that whoever started the program has it ignore, as nohup does.
void handle(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    for (const int signal : quitSignals) {
        struct sigaction before = {};
        if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            static_cast<void>(::sigaction(signal, &action, nullptr));
    }
}

class QuitSignals final : public QObject
{
public:
    explicit QuitSignals(std::function<void()> quit)
    {
        eventDescriptor = m_event.get();
        connect(&m_notifier, &QSocketNotifier::activated, this, [this, quit = std::move(quit)] {
            m_notifier.setEnabled(false);
            quit();
        });
        handle(tellEventLoop);
    }
    ~QuitSignals() override { handle(SIG_DFL); }
    Q_DISABLE_COPY_MOVE(QuitSignals)

private:
    UniqueFd m_event{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    QSocketNotifier m_notifier{m_event.get(), QSocketNotifier::Read};
};

} // namespace

std::unique_ptr<QObject> platform::watchForQuit(std::function<void()> quit)
{
    return std::make_unique<QuitSignals>(std::move(quit));
}

} // namespace korvane
