// Standard input and output by their descriptors, blocking or not; signals, locale and affinity.
#include "platform/process_setup.h"

#include "platform/portable/framework_log.h"
#include "platform/portable/utf8_locale.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

namespace {

/// Waits for one of `events` after a transfer that failed. False when it failed for good.
bool waitToTryAgain(int descriptor, short events)
{
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    pollfd awaited{descriptor, events, 0};
    return ::poll(&awaited, 1, -1) >= 0 || errno == EINTR;
}

bool isRegularFile(int descriptor)
{
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

class DescriptorStreams final : public StandardStreams
{
public:
    std::ptrdiff_t read(std::span<char> buffer) override
    {
        for (;;) {
            const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
            if (count >= 0 || !waitToTryAgain(STDIN_FILENO, POLLIN))
                return count;
        }
    }

    bool write(std::string_view bytes) override
    {
        while (!bytes.empty()) {
            const ssize_t count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
            if (count >= 0)
                bytes.remove_prefix(static_cast<std::size_t>(count));
            else if (!waitToTryAgain(STDOUT_FILENO, POLLOUT))
                return false;
        }
        return true;
    }

    /// A pipe without a writer, or a socket whose other end writes no more, is told of by poll at
    /// once, whatever is yet to be read; a file holds all there is from the start.
    bool inputHasEnded() override
    {
        pollfd input{STDIN_FILENO, POLLRDHUP, 0};
        return m_inputIsFile || ::poll(&input, 1, 0) > 0;
    }

private:
    bool m_inputIsFile = isRegularFile(STDIN_FILENO);
};

/// Else the next thing that is opened would be taken for a standard stream.
void fillClosedDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0)
            (void)::open("/dev/null", O_RDWR); // takes the lowest number
    }
}

/// By the affinity of both threads.
class AffinityProcessor final : public SharedProcessor
{
public:
    void gather() override
    {
        // Read each time, as somebody may have changed either from outside.
        const int processor = ::sched_getcpu();
        m_isGathered = false;
        if (processor < 0 || ::sched_getaffinity(0, sizeof(m_callers), &m_callers) != 0 ||
            ::sched_getaffinity(m_mainThread, sizeof(m_mains), &m_mains) != 0 ||
            CPU_COUNT(&m_callers) < 2 || !CPU_ISSET(static_cast<unsigned>(processor), &m_mains))
            return;
        cpu_set_t here = {};
        CPU_SET(static_cast<unsigned>(processor), &here);
        m_isGathered = true;
        (void)::sched_setaffinity(m_mainThread, sizeof(here), &here);
        (void)::sched_setaffinity(0, sizeof(here), &here);
    }

    void release() override
    {
        if (m_isGathered)
            (void)::sched_setaffinity(0, sizeof(cpu_set_t),
                                      ::gettid() == m_mainThread ? &m_mains : &m_callers);
    }

private:
    pid_t m_mainThread = ::gettid();
    cpu_set_t m_mains = {};   ///< Where the main thread may run, written while it waits; and
    cpu_set_t m_callers = {}; ///< where the other.
    std::atomic<bool> m_isGathered = false;
};

} // namespace

std::unique_ptr<StandardStreams> platform::prepareProcess()
{
    fillClosedDescriptors();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    useUtf8Locale();
    readLogRulesWithoutHome();
    return std::make_unique<DescriptorStreams>();
}

std::unique_ptr<SharedProcessor> platform::makeSharedProcessor()
{
    return std::make_unique<AffinityProcessor>();
}

} // namespace korvane
