// Forked processes that do not outlive the test.
#pragma once

#include <QFile>
#include <QTemporaryFile>

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace korvane::test {

using namespace Qt::StringLiterals;

inline void waitForEnd()
{
    for (;;)
        ::pause();
}

/// Ends the first thread of a Child, which lives on in another thread. That one closes standard
/// output once the first has ended.
inline void endFirstThread()
{
    std::thread([] {
        for (bool hasEnded = false; !hasEnded; ::usleep(1000)) {
            QFile stat(u"/proc/self/stat"_s);
            hasEnded = stat.open(QFile::ReadOnly) && stat.readAll().contains(") Z ");
        }
        ::close(STDOUT_FILENO);
        waitForEnd();
    }).detach();
    ::syscall(SYS_exit, 0); // of this thread
}

/// A forked process that does not outlive this object. The constructor returns once the child,
/// having run `prepare`, or the program executed there, has closed its standard output.
class Child
{
public:
    explicit Child(
        const std::function<void()>& prepare = [] {}, void (*live)() = waitForEnd)
    {
        std::array<int, 2> ready{};
        if (::pipe2(ready.data(), O_CLOEXEC) != 0)
            return;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(ready[1], STDOUT_FILENO);
            ::close(ready[1]);
            prepare();
            ::close(STDOUT_FILENO);
            live();
        }
        ::close(ready[1]);
        char byte = 0;
        while (::read(ready[0], &byte, 1) < 0 && errno == EINTR) {
        }
        ::close(ready[0]);
    }
    ~Child() { reap(); }
    Q_DISABLE_COPY_MOVE(Child)

    pid_t pid() const { return m_pid; }

    /// Whether it has neither ended nor been killed; so too of any other child.
    static bool isRunning(qint64 pid)
    {
        siginfo_t info = {};
        return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }
    bool isRunning() const { return isRunning(m_pid); }

    /// Waits for the child to end by itself; its exit code, or -1 where it was killed.
    int wait()
    {
        int status = -1;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// Ends the child and all trace of it.
    void reap()
    {
        if (m_pid <= 0)
            return;
        ::kill(m_pid, SIGKILL);
        wait();
    }

private:
    pid_t m_pid = -1;
};

/// What makes a Child the shell, which waits after the script, unless that fails; $0 is `argument`.
inline std::function<void()> runShell(QByteArray script, const QByteArray& argument = {})
{
    script += "; exec >&-; kill -STOP $$";
    return
        [=] { ::execl("/bin/sh", "sh", "-ec", script.constData(), argument.constData(), nullptr); };
}

constexpr int refusedCode = 77; ///< Exit code of a part that cannot be played here.

/// What `act` returns in a forked process, which may end itself by refusedCode; empty then.
inline QString played(const std::function<QString()>& act)
{
    QTemporaryFile said;
    const bool canSay = said.open();
    Child actor([&] {
        const QByteArray text = act().toUtf8();
        ::_exit(canSay && ::pwrite(said.handle(), text.constData(),
                                   static_cast<size_t>(text.size()), 0) == text.size()
                    ? 0
                    : 1);
    });
    const int code = actor.wait();
    if (code == refusedCode)
        return {};
    const QString text = QString::fromUtf8(said.readAll());
    return code == 0 && !text.isEmpty() ? text : text + u" (failed)"_s;
}

} // namespace korvane::test
