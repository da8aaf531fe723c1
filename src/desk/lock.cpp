// Taking lock files, those of killed programs too.
#include "desk/lock.h"

#include <QFileInfo>

#include <chrono>

namespace korvane::desk {

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {

/// The framework reads what it finds in a lock's place: a pipe would have it wait forever, a huge file
/// take all memory. Where others may write, anybody can have put one there.
bool mayBeLock(const QString& path)
{
    constexpr qint64 maxLockBytes = 4096;
    const QFileInfo file(path);
    return !file.isSymLink() && (!file.exists() || (file.isFile() && file.size() <= maxLockBytes));
}

/// takeLock(), with a look at so many generations of what who took the file over has left.
std::unique_ptr<QLockFile> takeLock(const QString& path, qint64& holder, int generations)
{
    // Who was killed while it made the file has left it without a PID. By age any file counts as left
    // over, but the system tells of a holder who lives.
    constexpr auto staleAfter = 1s;
    constexpr std::chrono::milliseconds waitForStale = 1500ms;

    const QString takeOver = path + u".rmlock"_s;
    holder = 0;
    if (!mayBeLock(path) || !mayBeLock(takeOver))
        return nullptr;
    auto lock = std::make_unique<QLockFile>(path);
    lock->setStaleLockTime(staleAfter);
    if (lock->tryLock())
        return lock;
    // Who was killed while it took a file over has left one more, which the framework alone would heed
    // for half a minute. Taken and let go, it is gone.
    if (generations > 0 && QFileInfo::exists(takeOver)) {
        qint64 other = 0;
        takeLock(takeOver, other, generations - 1).reset();
    }
    QString host;
    QString program;
    if (lock->tryLock())
        return lock;
    if (lock->error() != QLockFile::LockFailedError || lock->getLockInfo(&holder, &host, &program))
        return nullptr;
    return lock->tryLock(static_cast<int>(waitForStale.count())) ? std::move(lock) : nullptr;
}

} // namespace

std::unique_ptr<QLockFile> takeLock(const QString& path, qint64& holder)
{
    return takeLock(path, holder, 4);
}

} // namespace korvane::desk
