// Running the system's own programs for what they print.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>

namespace korvane::linux_platform {

/// What a helper program may use.
struct HelperLimits
{
    std::chrono::milliseconds time{10'000};
    qsizetype outputBytes = qsizetype{64} * 1024 * 1024;
};

/// What a helper program printed, or why that is not to be had.
struct HelperResult
{
    QByteArray output; ///< Its standard output; empty after a failure.
    QString error;     ///< Short text; empty after a success.
};

/// Runs `command`, a program and its arguments, without standard input, in the root directory and
/// the locale C.UTF-8, and waits for its end. It fails when the program cannot be started, passes a
/// limit (it and its process group are then killed) or ends with a code other than 0, whose text
/// holds what it wrote to standard error. Processes that it leaves behind are not waited for. Main
/// thread only; no thread is created. Where even SIGKILL does not end it at once, as in a dead
/// mount, the call takes up to half a minute more.
HelperResult runHelper(const QStringList& command, const HelperLimits& limits = {});

} // namespace korvane::linux_platform
