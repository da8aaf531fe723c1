// Running the system's own programs, side by side, for what they print.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <chrono>

namespace korvane::linux_platform {

/// A program, found in PATH, and its arguments.
struct HelperCommand
{
    QString program;
    QStringList arguments;
};

/// What helper programs may use.
struct HelperLimits
{
    std::chrono::milliseconds time{10'000};              ///< All of them together.
    qsizetype outputBytes = qsizetype{64} * 1024 * 1024; ///< Each.
};

/// What a helper program printed on standard output; or a short text why that is not to be had.
struct HelperResult
{
    QByteArray output;
    QString error; ///< Empty after a success.
};

/// Runs programs side by side, without standard input, in the root directory and the locale C.UTF-8,
/// to their ends; a result for each, in their order. One fails when it cannot be started, passes a
/// limit (it and its process group are then killed) or ends with a code other than 0. What it leaves
/// running is not waited for. Main thread only, whose events are processed meanwhile; no thread is
/// created. The call takes at most a second more than the limit, even where SIGKILL ends nothing.
QList<HelperResult> runHelpers(const QList<HelperCommand>& commands, const HelperLimits& limits);

} // namespace korvane::linux_platform
