// Moves entries into the recycle bin.
#include "platform/linux/trash/trash_mover.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/trash/directory_path.h"
#include "platform/linux/trash/tree_copy.h"
#include "platform/linux/trash/tree_removal.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

using Outcome = TrashCandidate::Outcome;

QString reasonFor(int error)
{
    switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
        return QStringLiteral("无权限");
    case ENOSPC:
    case EDQUOT:
        return QStringLiteral("空间不足");
    case EBUSY:
    case ETXTBSY:
        return QStringLiteral("正在使用");
    default:
        return QStringLiteral("移动失败: %1").arg(qt_error_string(error));
    }
}

quint64 mountOf(int directory)
{
    struct statx info = {};
    constexpr auto wanted = STATX_MNT_ID | STATX_INO;
    if (::statx(directory, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, wanted, &info) != 0)
        return 0;
    if ((info.stx_mask & STATX_MNT_ID) != 0)
        return info.stx_mnt_id;
    return (quint64{1} << 63U) | (quint64{info.stx_dev_major} << 32U) | info.stx_dev_minor;
}

void keep(TrashCandidate& candidate, const QString& why)
{
    const bool isThere = hasEntry(candidate.source->handle.get(), candidate.name.constData());
    candidate.outcome = isThere ? Outcome::Kept : Outcome::Vanished;
    candidate.why = why;
}

/// Keeps the entry where there is an error; tells whether.
bool isKept(TrashCandidate& candidate, int error)
{
    if (error != 0)
        keep(candidate, reasonFor(error));
    return error != 0;
}

/// What keeps an entry by now: a mount in the namespace of any process. Removing an entry detaches what
/// others have mounted there, without a word. Empty where it may go.
QString problemWith(const TrashCandidate& candidate, const OrErrno<MountTables>& mounts)
{
    if (!mounts)
        return reasonFor(mounts.error());
    return keptBecauseText(keptByMounts(*mounts, candidate.source->handle.get(), candidate.path()));
}

/// The top directory of the mount that `source` lies on; invalid where it cannot be reached.
std::pair<UniqueFd, QByteArray> topOf(const SourceDirectory& source)
{
    constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    UniqueFd top(::openat(source.handle.get(), ".", flags));
    QByteArray path = source.path;
    while (top.isValid() && path != "/") {
        UniqueFd above(::openat(top.get(), "..", flags));
        if (above.isValid() && mountOf(above.get()) != source.mount)
            break;
        top = std::move(above);
        path.truncate(std::max(path.lastIndexOf('/'), qsizetype{1}));
    }
    return {std::move(top), path};
}

/// Whether a copy leaves the file system room to breathe.
bool hasSpaceFor(qint64 bytes, int directory)
{
    constexpr quint64 least = quint64{64} * 1024 * 1024;
    struct statvfs info = {};
    if (::fstatvfs(directory, &info) != 0)
        return false;
    const quint64 free = quint64{info.f_bavail} * info.f_frsize;
    const quint64 reserve = std::max(least, quint64{info.f_blocks} * info.f_frsize / 100);
    return free > reserve && static_cast<quint64>(bytes) < free - reserve;
}

} // namespace

OrErrno<std::shared_ptr<const SourceDirectory>> SourceDirectory::open(const QByteArray& path)
{
    OrErrno<DirectoryAtPath> opened = openDirectoryAt(path);
    if (!opened)
        return opened.error();
    struct statfs info = {};
    if (::fstatfs(opened->handle.get(), &info) != 0)
        return errno;
    auto source = std::make_shared<SourceDirectory>();
    source->handle = std::move(opened->handle);
    source->path = std::move(opened->path);
    source->mount = mountOf(source->handle.get());
    source->isMemory = info.f_type == TMPFS_MAGIC || info.f_type == RAMFS_MAGIC;
    return std::shared_ptr<const SourceDirectory>(std::move(source));
}

TrashMover::TrashMover() : m_home(TrashDirectory::ofHome())
{
    if (m_home)
        m_homeMount = mountOf(m_home->handle());
}

void TrashMover::move(std::vector<TrashCandidate>& candidates)
{
    std::map<TrashDirectory*, Candidates> renamed;
    for (TrashCandidate& candidate : candidates) {
        const SourceDirectory& source = *candidate.source;
        if (::faccessat(source.handle.get(), ".", W_OK | X_OK, AT_EACCESS) != 0)
            keep(candidate, reasonFor(errno));
        else if (m_home && source.mount == m_homeMount)
            renamed[m_home.get()].push_back(&candidate);
        else if (!source.isMemory)
            renamed[volumeTrashOf(source)].push_back(&candidate);
    }
    renamed.erase(nullptr);
    for (const auto& [trash, group] : renamed)
        rename(*trash, group);
    Candidates copied;
    for (TrashCandidate& candidate : candidates) {
        if (candidate.outcome != Outcome::Pending)
            continue;
        if (!m_home)
            keep(candidate, QStringLiteral("回收站不可用"));
        else if (!candidate.verdict.canBeHeld)
            keep(candidate, QStringLiteral("无法确认未被使用"));
        else
            copied.push_back(&candidate);
    }
    copy(std::move(copied));
}

/// The trash on the volume of `source`; none where there can be none, and where it would lie in that
/// very directory: there the next search for junk would find it.
TrashDirectory* TrashMover::volumeTrashOf(const SourceDirectory& source)
{
    const auto [top, path] = topOf(source);
    if (!top.isValid() || path == source.path)
        return nullptr;
    const auto [volume, isNew] = m_volumeTrashes.try_emplace(source.mount);
    if (isNew)
        volume->second = TrashDirectory::ofVolume(top.get(), path);
    return volume->second.get();
}

/// Renames what can be renamed; what cannot stays pending.
void TrashMover::rename(TrashDirectory& trash, const Candidates& candidates)
{
    for (TrashCandidate* candidate : candidates)
        candidate->reserved = trash.reserve(candidate->path()).value_or(QByteArray());
    // An entry whose info file is lost could not be restored.
    const int syncError = trash.sync();
    const OrErrno<MountTables> mounts = MountTables::read();
    for (TrashCandidate* candidate : candidates) {
        if (candidate->reserved.isEmpty())
            continue;
        const QString problem = problemWith(*candidate, mounts);
        int error = syncError;
        if (error == 0 && problem.isEmpty())
            error = trash.accept(candidate->source->handle.get(), candidate->name.constData(),
                                 candidate->reserved);
        if (error == 0 && problem.isEmpty()) {
            candidate->outcome = Outcome::Moved;
            continue;
        }
        trash.release(candidate->reserved);
        if (error != EXDEV || !problem.isEmpty())
            keep(*candidate, problem.isEmpty() ? reasonFor(error) : problem);
    }
}

/// Makes the copy of an entry that is to go to the home trash; 0, or an errno.
int TrashMover::stage(TrashCandidate& candidate)
{
    const int staging = m_home->staging().handle();
    if (!hasSpaceFor(candidate.verdict.bytes, staging))
        return ENOSPC;
    const OrErrno<QByteArray> reserved = m_home->reserve(candidate.path());
    if (!reserved)
        return reserved.error();
    candidate.reserved = *reserved;
    candidate.copy = QByteArray::number(++m_copies) + ".copy";
    const int error = copyTree(candidate.source->handle.get(), candidate.name.constData(), staging,
                               candidate.copy.constData());
    if (error != 0)
        discardCopy(candidate);
    return error;
}

/// Removes a copy that has not gone to the trash.
void TrashMover::discardCopy(TrashCandidate& candidate)
{
    (void)removeTree(m_home->staging().handle(), candidate.copy.constData());
    m_home->release(candidate.reserved);
}

/// Moves entries into the home trash as copies, and removes the originals once those are on disk.
void TrashMover::copy(Candidates candidates)
{
    std::erase_if(candidates, [this](TrashCandidate* candidate) {
        return isKept(*candidate, stage(*candidate));
    });
    if (candidates.empty())
        return;
    const int syncError = m_home->sync();
    std::erase_if(candidates, [&](TrashCandidate* candidate) {
        int error = syncError;
        if (error == 0)
            error = m_home->accept(m_home->staging().handle(), candidate->copy.constData(),
                                   candidate->reserved);
        if (error != 0)
            discardCopy(*candidate);
        return isKept(*candidate, error);
    });
    // Where that fails, which of the two the disk has is not known: both stay.
    const bool isOnDisk = m_home->sync() == 0;
    const OrErrno<MountTables> mounts = MountTables::read();
    for (TrashCandidate* candidate : candidates) {
        candidate->outcome = Outcome::MovedInPart;
        if (isOnDisk)
            removeOriginalOf(*candidate, problemWith(*candidate, mounts));
    }
}

/// Removes the original of an entry that is in the home trash, unless there is a reason not to.
void TrashMover::removeOriginalOf(TrashCandidate& candidate, const QString& whyNot)
{
    RemovedOriginal removed;
    if (whyNot.isEmpty())
        removed = removeOriginal(candidate.source->handle.get(), candidate.name.constData(),
                                 m_home->files(), candidate.reserved.constData());
    if (removed.isGone) {
        candidate.outcome = Outcome::Moved;
    } else if (removed.isUntouched && m_home->takeOut(candidate.reserved, candidate.copy) == 0) {
        discardCopy(candidate);
        const QString why = reasonFor(removed.error != 0 ? removed.error : EBUSY);
        keep(candidate, whyNot.isEmpty() ? why : whyNot);
    }
}

} // namespace korvane::linux_platform
