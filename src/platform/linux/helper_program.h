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

/// What a helper program printed on standard output; or a short text why that is not to be had.
struct HelperResult
{
    QByteArray output;
    QString error; ///< Empty after a success.
};

/// Runs `program` without standard input, in the root directory and the locale C.UTF-8, to its end.
/// It fails when it cannot be started, passes a limit (it and its process group are then killed) or
/// ends with a code other than 0. What it leaves running is not waited for. Main thread only; none
/// is created. Where even SIGKILL ends it late, the call takes up to half a minute more.
HelperResult runHelper(const QString& program, const QStringList& arguments,
                       const HelperLimits& limits);

} // namespace korvane::linux_platform
