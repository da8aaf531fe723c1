// The terminal by its descriptors, in its own line editing.
#include "platform/terminal.h"

#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace korvane {

namespace {

class DescriptorTerminal final : public platform::Terminal
{
public:
    DescriptorTerminal()
    {
        QObject::connect(&m_input, &QSocketNotifier::activated, &m_input, [this] { read(); });
    }

    void write(const QByteArray& text) override
    {
        for (qsizetype done = 0; done < text.size();) {
            const ssize_t count = ::write(STDOUT_FILENO, text.constData() + done,
                                          static_cast<std::size_t>(text.size() - done));
            if (count >= 0)
                done += count;
            else if (!waitToTryAgain())
                return;
        }
    }

    void discardInput() override
    {
        m_begun.clear();
        static_cast<void>(::tcflush(STDIN_FILENO, TCIFLUSH));
    }

    int columns() const override
    {
        winsize size = {};
        const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
        constexpr int usual = 80;
        return isKnown ? size.ws_col : usual;
    }

private:
    static bool waitToTryAgain()
    {
        pollfd output{STDOUT_FILENO, POLLOUT, 0};
        return errno == EINTR || (errno == EAGAIN && ::poll(&output, 1, -1) >= 0);
    }

    /// The terminal hands over a line at a time. What has no line feed was cut off by Ctrl-D, or the
    /// terminal edits no lines: it waits for its Enter. Ctrl-D ends the input where it comes first.
    void read()
    {
        std::array<char, maxLineBytes> buffer;
        const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (count > 0) {
            m_begun.append(buffer.data(), count);
            if (m_begun.endsWith('\n'))
                onLine(std::exchange(m_begun, {}).chopped(1));
            else
                m_begun.truncate(maxLineBytes); // Too long for any answer.
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            m_input.setEnabled(false);
            onEnd();
        }
    }

    static constexpr qsizetype maxLineBytes = 4096; ///< The longest line that terminals edit.
    QByteArray m_begun;
    QSocketNotifier m_input{STDIN_FILENO, QSocketNotifier::Read};
};

} // namespace

std::unique_ptr<platform::Terminal> platform::openTerminal()
{
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0)
        return nullptr;
    return std::make_unique<DescriptorTerminal>();
}

} // namespace korvane
