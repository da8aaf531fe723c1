// The one narrow layer between the program and the operating system; walking directory trees stands
// in file_walk.h.
//
// A platform is a folder beside this header. It defines the free functions below and the
// `*Platform` members of the service classes in core/ (and, on FileUnlockService, the probing,
// closing, ending and delete-on-reboot operations); a topic it has no file for is taken from
// unsupported/. Every operation is called on the main thread, but for the two of SignatureService,
// which may be called from several threads at once. None throws; failure is in the return value.
#pragma once

#include <QList>
#include <QString>

namespace korvane {

struct SystemMetrics;

/// Result of a write operation: what happened, and the text to show.
struct OpResult
{
    bool ok = false;
    QString message; ///< Why it failed; may carry a note when it succeeded.
};

namespace platform {

/// Fills all fields of `out`. Rates and percentages are relative to the previous call, so callers
/// sample twice. All zeros where the platform has no back end.
/// Linux: /proc/stat, /proc/meminfo, /proc/net/dev, /sys/block and /sys/class/net.
void sampleSystemMetrics(SystemMetrics& out);

/// Fills only the memory and commit fields of `out`, cheaply.
void sampleMemoryOnly(SystemMetrics& out);

/// Whether the program at the other end of the connected local socket may answer for this program's
/// user. Linux: the socket's peer credentials name the same user or root; for a server that sudo
/// runs as root, the user in SUDO_UID too. Never the overflow user of a user namespace that leaves
/// users out (/proc/self/uid_map), as whom all of those read. Where the platform has no such check:
/// true.
bool mayAnswerForUser(qintptr socketDescriptor);

/// The full command line of process `pid`; empty when it cannot be read.
/// Linux: /proc/PID/cmdline, arguments joined by one blank.
QString processCommandLine(unsigned int pid);

/// Moves the entries at `paths`, absolute ones, to the recycle bin, from where the user can restore
/// them. Ok unless something was to be moved and nothing could be; the message tells how many were, and
/// how many were not for which reason. A path where nothing is any more counts as neither. Blocks for
/// as long as copying takes.
/// Linux: FreeDesktop.org's trash. Never moved is what is in use, belongs to another user, is a
/// socket, FIFO or device, or holds such a thing.
OpResult moveToRecycleBin(const QList<QString>& paths);

/// Keeps the machine from sleeping while `on`; false when it cannot.
bool setKeepAwake(bool on);

/// Empties the recycle bin; false when it cannot.
bool emptyRecycleBin();

/// Removes the downloaded-from-the-internet marker of the file at `path`; false when it cannot.
bool removeMarkOfTheWeb(const QString& path);

/// Toggles always-on-top of the foreground window; the new state, or -1 when it cannot.
int toggleForegroundWindowTopmost();

} // namespace platform

} // namespace korvane
