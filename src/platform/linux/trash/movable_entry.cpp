// The judgement of an entry: by its name, by what lies at its path, and by everything in it.
#include "platform/linux/trash/movable_entry.h"

#include "platform/linux/files/tree_walk.h"
#include "platform/linux/trash/file_hold.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

/// What programs find by its name alone, without having it open: recycle bins, the places of X's
/// sockets, its locks and keys, Kerberos tickets, what services have for their /tmp, the state of
/// containers. Names so peculiar mean the same in any directory, wherever temporary files are kept.
constexpr std::array systemNames{
    ".Trash",        ".Trash-[0-9]*",     ".X11-unix",        ".ICE-unix",      ".XIM-unix",
    ".font-unix",    ".Test-unix",        ".X[0-9]*-lock",    ".tX[0-9]*-lock", "serverauth.*",
    "krb5cc*",       "systemd-private-*", "snap-private-tmp", "snap.[0-9]*_*",  "podman-run-*",
    "storage-run-*", "containers-user-*"};

bool isSystemName(const char* name)
{
    return std::any_of(systemNames.begin(), systemNames.end(),
                       [name](const char* pattern) { return ::fnmatch(pattern, name, 0) == 0; });
}

/// Of the entry itself, from what the kernel knows without asking a server that may be dead.
int statOf(int directory, const char* name, struct statx& found)
{
    constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
    return ::statx(directory, name, flags, STATX_BASIC_STATS, &found) == 0 ? 0 : errno;
}

dev_t deviceOf(const struct statx& found)
{
    return makedev(found.stx_dev_major, found.stx_dev_minor);
}

/// Whether `name` is that of a socket's lock file, as data base servers leave it beside it, unopened.
bool isLockOfSocket(int directory, const QByteArray& name)
{
    struct statx socket = {};
    return name.endsWith(".lock") && statOf(directory, name.chopped(5).constData(), socket) == 0 &&
           S_ISSOCK(socket.stx_mode);
}

KeptBecause reasonOf(int error)
{
    if (error == ENOENT)
        return KeptBecause::Vanished;
    return error == EXDEV ? KeptBecause::MountPoint : KeptBecause::Unreadable;
}

bool isPlain(mode_t mode)
{
    return S_ISREG(mode) || S_ISDIR(mode) || S_ISLNK(mode);
}

void addTo(MoveVerdict& sum, const struct statx& found)
{
    // A file system may claim any size.
    const auto bytes =
        static_cast<qint64>(std::min<quint64>(found.stx_blocks, quint64{1} << 53U) * 512);
    if (qAddOverflow(sum.bytes, bytes, &sum.bytes))
        sum.bytes = std::numeric_limits<qint64>::max();
}

/// Whether a program has the file open, also one that may not be looked into.
KeptBecause judgeByLease(int directory, const char* name, MoveVerdict& sum)
{
    const int error = FileHold(directory, name).error();
    switch (error) {
    case EOPNOTSUPP:
        sum.canBeHeld = false;
        [[fallthrough]];
    case 0:
        return KeptBecause::Nothing;
    case EBUSY:
        return KeptBecause::InUse;
    case EACCES:
    case EPERM:
        return KeptBecause::NotOwn;
    default:
        return reasonOf(error);
    }
}

} // namespace

QString keptBecauseText(KeptBecause reason)
{
    static constexpr std::array<QStringView, 11> texts{u"",
                                                       u"已不存在",
                                                       u"正在使用",
                                                       u"无权限",
                                                       u"含特殊文件",
                                                       u"含挂载点",
                                                       u"系统保留",
                                                       u"无法读取",
                                                       u"路径可被他人更改",
                                                       u"临时目录为用户目录或其上级",
                                                       u"无法确认未被使用"};
    return texts.at(static_cast<std::size_t>(reason)).toString();
}

KeptBecause keptByMounts(const MountTables& mounts, int parent, const QByteArray& path)
{
    switch (mounts.useOf(parent, path)) {
    case MountTables::Use::None:
        return KeptBecause::Nothing;
    case MountTables::Use::MountPoint:
        return KeptBecause::MountPoint;
    case MountTables::Use::Source:
        return KeptBecause::InUse;
    case MountTables::Use::Unknown:
        break;
    }
    return KeptBecause::Unconfirmed;
}

/// Adds up what is in a directory, until something must stay.
class MoveJudge::Visitor : public TreeVisitor
{
public:
    Visitor(const MoveJudge& judge, MoveVerdict& result) : m_judge(judge), m_result(result) {}

    Step entry(TreeWalk& walk, const TreeEntry& entry) override
    {
        mode_t mode = 0;
        const KeptBecause reason = m_judge.judgeAlone(walk.directory(), entry.name, m_result, mode);
        if (reason != KeptBecause::Nothing)
            return stay(reason);
        if (S_ISDIR(mode) != (entry.type == DT_DIR))
            return stay(KeptBecause::Vanished);
        return S_ISDIR(mode) ? Step::Descend : Step::GoOn;
    }

    Step failed(TreeWalk&, int error) override { return stay(reasonOf(error)); }

private:
    /// A tree from which something vanishes meanwhile is one that somebody is working on.
    Step stay(KeptBecause reason)
    {
        const bool isChanging = reason == KeptBecause::Vanished;
        m_result.keptBecause = isChanging ? KeptBecause::InUse : reason;
        return Step::Stop;
    }

    const MoveJudge& m_judge;
    MoveVerdict& m_result;
};

MoveJudge::MoveJudge(FilesInUse inUse, const QList<QByteArray>& protectedPaths)
    : m_inUse(std::move(inUse))
{
    for (const QByteArray& path : protectedPaths) {
        struct statx found = {};
        if (::statx(AT_FDCWD, path.constData(), AT_STATX_DONT_SYNC, STATX_INO, &found) == 0)
            m_protected.emplace_back(deviceOf(found), found.stx_ino);
    }
}

KeptBecause MoveJudge::judgeAlone(int directory, const char* name, MoveVerdict& sum,
                                  mode_t& mode) const
{
    struct statx found = {};
    const int error = statOf(directory, name, found);
    if (error != 0)
        return reasonOf(error);
    const std::pair<dev_t, ino_t> identity(deviceOf(found), found.stx_ino);
    const quint64 attributes = found.stx_attributes & found.stx_attributes_mask;
    if ((attributes & STATX_ATTR_MOUNT_ROOT) != 0)
        return KeptBecause::MountPoint;
    if (std::find(m_protected.cbegin(), m_protected.cend(), identity) != m_protected.cend())
        return KeptBecause::SystemPlace;
    if (m_inUse.has(identity.first, identity.second))
        return KeptBecause::InUse;
    if (found.stx_uid != ::geteuid() ||
        (attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0)
        return KeptBecause::NotOwn;
    mode = found.stx_mode;
    if (!isPlain(mode))
        return KeptBecause::SpecialFile;
    addTo(sum, found);
    return S_ISREG(mode) && sum.canBeHeld ? judgeByLease(directory, name, sum)
                                          : KeptBecause::Nothing;
}

MoveVerdict MoveJudge::judge(int parent, const char* name, const QByteArray& canonicalPath) const
{
    // What lies below is known without touching it: a dead mount could not even be asked.
    if (isSystemName(name))
        return {KeptBecause::SystemPlace};
    const KeptBecause byMounts = keptByMounts(m_inUse.mounts(), parent, canonicalPath);
    if (byMounts != KeptBecause::Nothing)
        return {byMounts};
    if (m_inUse.hasBelow(canonicalPath) || isLockOfSocket(parent, name))
        return {KeptBecause::InUse};

    MoveVerdict result;
    result.canBeHeld = FileHold::isPossibleIn(parent);
    mode_t mode = 0;
    result.keptBecause = judgeAlone(parent, name, result, mode);
    if (result.keptBecause != KeptBecause::Nothing || !S_ISDIR(mode))
        return result;
    Visitor visitor(*this, result);
    const int error = TreeWalk(TreeWalk::Mounts::Stay).run(parent, name, false, name, visitor);
    if (error != 0)
        result.keptBecause = reasonOf(error);
    return result;
}

} // namespace korvane::linux_platform
