// A bounded run of a helper program through QProcess.
#include "platform/linux/helper_program.h"

#include "platform/linux/text.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QProcessEnvironment>

#include <algorithm>

#include <csignal>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

void prepare(QProcess& process)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    environment.remove(QStringLiteral("LANGUAGE")); // translates C.UTF-8 too
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setWorkingDirectory(QStringLiteral("/"));
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

/// Ends the group of `process`, which has not been waited for: the id is still its own.
void killGroup(QProcess& process)
{
    process.closeReadChannel(QProcess::StandardOutput);
    process.closeReadChannel(QProcess::StandardError);
    ::kill(-static_cast<pid_t>(process.processId()), SIGKILL);
    constexpr int patienceMs = 1000;
    process.waitForFinished(patienceMs);
}

} // namespace

HelperResult runHelper(const QString& program, const QStringList& arguments,
                       const HelperLimits& limits)
{
    stopIgnoringChildren();
    const QDeadlineTimer deadline(limits.time);
    QProcess process;
    prepare(process);
    process.start(program, arguments, QIODevice::ReadOnly);
    if (!process.waitForStarted(static_cast<int>(limits.time.count())))
        return {{}, QStringLiteral("无法启动: %1").arg(process.errorString())};

    // While it waits for output, QProcess takes in all that comes on standard error: short waits
    // bound the memory that a flood there can use.
    constexpr qint64 longestWaitMs = 20;
    constexpr qsizetype complaintLimit = 300;
    QByteArray output;
    QByteArray complaint;
    while (process.state() != QProcess::NotRunning && !deadline.hasExpired() &&
           output.size() <= limits.outputBytes) {
        process.waitForReadyRead(
            static_cast<int>(std::min(deadline.remainingTime(), longestWaitMs)));
        output += process.readAllStandardOutput();
        complaint = (complaint + process.readAllStandardError()).left(complaintLimit);
    }
    const bool isStuck = process.state() != QProcess::NotRunning;
    if (isStuck)
        killGroup(process);
    if (output.size() > limits.outputBytes)
        return {{}, QStringLiteral("输出超过 %1 字节").arg(limits.outputBytes)};
    if (isStuck)
        return {{}, QStringLiteral("%1 毫秒内未结束").arg(limits.time.count())};
    if (process.exitStatus() != QProcess::NormalExit)
        return {{}, QStringLiteral("异常终止")};
    if (const int code = process.exitCode(); code != 0)
        return {{},
                QStringLiteral("退出码 %1: %2")
                    .arg(QString::number(code), textFromSystem(complaint.trimmed()))};
    return {output, {}};
}

} // namespace korvane::linux_platform
