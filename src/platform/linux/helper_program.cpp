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

constexpr qsizetype complaintLimit = 300;

/// How long output may gather unseen. While QProcess waits for one channel it takes in all that
/// comes on the other, so that this bounds the memory which a flood can use.
constexpr qint64 longestWaitMs = 20;

void prepare(QProcess& process, const QStringList& command)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    environment.remove(QStringLiteral("LANGUAGE")); // translates C.UTF-8 too
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setWorkingDirectory(QStringLiteral("/"));
    process.setProgram(command.value(0));
    process.setArguments(command.mid(1));
    process.setChildProcessModifier([] { ::setpgid(0, 0); });
}

/// Moves what the process has written to `output` and, up to its limit, to `complaint`.
void collect(QProcess& process, QByteArray& output, QByteArray& complaint)
{
    output += process.readAllStandardOutput();
    const QByteArray written = process.readAllStandardError();
    complaint += written.first(std::min(written.size(), complaintLimit - complaint.size()));
}

/// Ends the process group of `process`, which has not been waited for: its id is still its own.
void killGroup(QProcess& process)
{
    process.closeReadChannel(QProcess::StandardOutput);
    process.closeReadChannel(QProcess::StandardError);
    ::kill(-static_cast<pid_t>(process.processId()), SIGKILL);
    constexpr int patienceMs = 1000;
    process.waitForFinished(patienceMs);
}

/// Waits for the end of `process` and gathers its output. The text is the limit that it passed, by
/// which it was killed; empty when it ended by itself.
QString gather(QProcess& process, const HelperLimits& limits, const QDeadlineTimer& deadline,
               QByteArray& output, QByteArray& complaint)
{
    while (process.state() != QProcess::NotRunning) {
        process.waitForReadyRead(
            static_cast<int>(std::min(deadline.remainingTime(), longestWaitMs)));
        collect(process, output, complaint);
        const bool isTooMuch = output.size() > limits.outputBytes;
        if (!isTooMuch && !deadline.hasExpired())
            continue;
        if (process.state() != QProcess::NotRunning)
            killGroup(process);
        return isTooMuch ? QStringLiteral("输出超过 %1 字节").arg(limits.outputBytes)
                         : QStringLiteral("%1 毫秒内未结束").arg(limits.time.count());
    }
    return {};
}

/// Why the ended `process` failed; empty when it did not.
QString exitFailure(const QProcess& process, QByteArrayView complaint)
{
    if (process.exitStatus() != QProcess::NormalExit)
        return QStringLiteral("异常终止");
    if (process.exitCode() == 0)
        return {};
    return QStringLiteral("退出码 %1: %2")
        .arg(QString::number(process.exitCode()), textFromSystem(complaint.trimmed()));
}

} // namespace

HelperResult runHelper(const QStringList& command, const HelperLimits& limits)
{
    const QDeadlineTimer deadline(limits.time);
    QProcess process;
    prepare(process, command);
    process.start(QIODevice::ReadOnly);
    if (!process.waitForStarted(static_cast<int>(deadline.remainingTime())))
        return {{}, QStringLiteral("无法启动: %1").arg(process.errorString())};

    HelperResult result;
    QByteArray complaint;
    result.error = gather(process, limits, deadline, result.output, complaint);
    if (result.error.isEmpty())
        result.error = exitFailure(process, complaint);
    if (!result.error.isEmpty())
        result.output.clear();
    return result;
}

} // namespace korvane::linux_platform
