// Bounded runs of helper programs through QProcess.
#include "platform/linux/sys/helper_program.h"

#include "platform/linux/sys/text.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <vector>

#include <csignal>
#include <unistd.h>

namespace korvane::linux_platform {

using namespace Qt::StringLiterals;

namespace {

void prepare(QProcess& process)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"LC_ALL"_s, u"C.UTF-8"_s);
    environment.remove(u"LANGUAGE"_s); // translates C.UTF-8 too
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setWorkingDirectory(u"/"_s);
    process.setChildProcessModifier([] { ::setpgid(0, 0); });
}

/// Undoes what whoever started this program may have left to it: where the signal is ignored, the
/// kernel forgets how a child ended.
void stopIgnoringChildren()
{
    struct sigaction action = {};
    if (::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
        static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
}

/// One program under way.
class Helper
{
public:
    Helper(const HelperCommand& command, qsizetype outputLimit) : m_outputLimit(outputLimit)
    {
        prepare(*m_process);
        m_process->start(command.program, command.arguments, QIODevice::ReadOnly);
    }

    /// Lets go of a process that not even SIGKILL has ended: to destroy it is to wait for it.
    ~Helper()
    {
        if (!isRunning())
            return;
        QProcess* const process = m_process.release();
        QObject::connect(process, &QProcess::finished, process, &QObject::deleteLater);
    }
    Q_DISABLE_COPY_MOVE(Helper)

    bool isRunning() const { return m_process->state() != QProcess::NotRunning; }

    /// Takes in what it has printed by now; one that floods is ended.
    void readOutput()
    {
        constexpr qsizetype complaintLimit = 300;
        if (!m_error.isEmpty())
            return;
        m_output += m_process->readAllStandardOutput();
        m_complaint = (m_complaint + m_process->readAllStandardError()).left(complaintLimit);
        if (m_output.size() > m_outputLimit)
            fail(u"输出超过 %1 字节"_s.arg(m_outputLimit));
    }

    /// Ends it with its whole group. It has not been waited for: the id is still its own.
    void fail(const QString& why)
    {
        m_error = why;
        const auto pid = static_cast<pid_t>(m_process->processId());
        if (!isRunning() || pid <= 0)
            return;
        m_process->closeReadChannel(QProcess::StandardOutput);
        m_process->closeReadChannel(QProcess::StandardError);
        if (::kill(-pid, SIGKILL) != 0) // it has not come to have a group of its own
            ::kill(pid, SIGKILL);
    }

    HelperResult result() const
    {
        if (!m_error.isEmpty())
            return {{}, m_error};
        if (m_process->error() == QProcess::FailedToStart)
            return {{}, u"无法启动: %1"_s.arg(m_process->errorString())};
        if (m_process->exitStatus() != QProcess::NormalExit)
            return {{}, u"异常终止"_s};
        if (const int code = m_process->exitCode(); code != 0)
            return {{},
                    u"退出码 %1: %2"_s.arg(QString::number(code),
                                           textFromSystem(m_complaint.trimmed()))};
        return {m_output, {}};
    }

private:
    std::unique_ptr<QProcess> m_process = std::make_unique<QProcess>();
    qsizetype m_outputLimit;
    QByteArray m_output;
    QByteArray m_complaint;
    QString m_error; ///< Why it was ended.
};

using Helpers = std::vector<std::unique_ptr<Helper>>;

/// Reads what they print until all have ended or the time is up.
void waitFor(const Helpers& helpers, std::chrono::milliseconds limit)
{
    const QDeadlineTimer deadline(limit);
    const auto isRunning = [](const auto& helper) { return helper->isRunning(); };
    QTimer alarm; // so that no wait for events outlasts the deadline for long
    alarm.start(std::chrono::milliseconds(50));
    while (!deadline.hasExpired() && std::any_of(helpers.begin(), helpers.end(), isRunning)) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        for (const auto& helper : helpers)
            helper->readOutput();
    }
}

} // namespace

QList<HelperResult> runHelpers(const QList<HelperCommand>& commands, const HelperLimits& limits)
{
    constexpr std::chrono::seconds patience(1); // for the killed
    stopIgnoringChildren();
    Helpers helpers;
    for (const HelperCommand& command : commands)
        helpers.push_back(std::make_unique<Helper>(command, limits.outputBytes));
    waitFor(helpers, limits.time);
    for (const auto& helper : helpers) {
        if (helper->isRunning())
            helper->fail(u"%1 毫秒内未结束"_s.arg(limits.time.count()));
    }
    waitFor(helpers, patience);
    QList<HelperResult> results;
    for (const auto& helper : helpers)
        results += helper->result();
    return results;
}

} // namespace korvane::linux_platform
