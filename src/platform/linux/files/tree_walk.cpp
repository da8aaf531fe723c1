// Goes through directory trees by handles.
#include "platform/linux/files/tree_walk.h"

#include "base/watchdog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

constexpr std::size_t entriesSize = 64UL * 1024;
constexpr int openFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// How many directories the walk leaves, at least, before it goes from the start again.
constexpr std::size_t leastBetweenChecks = TreeWalk::maxHandles / 2;

// The two that linux/magic.h leaves out.
constexpr unsigned long configfsMagic = 0x62656570;
constexpr unsigned long fusectlMagic = 0x65735543;

/// Whether the kernel makes up what lies there, so that sizes mean nothing.
bool isKernelMade(int directory)
{
    static constexpr std::array<unsigned long, 17> magics{
        PROC_SUPER_MAGIC, SYSFS_MAGIC,        CGROUP_SUPER_MAGIC,   CGROUP2_SUPER_MAGIC,
        DEBUGFS_MAGIC,    TRACEFS_MAGIC,      SECURITYFS_MAGIC,     SELINUX_MAGIC,
        SMACK_MAGIC,      PSTOREFS_MAGIC,     EFIVARFS_MAGIC,       BPF_FS_MAGIC,
        BINFMTFS_MAGIC,   DEVPTS_SUPER_MAGIC, RDTGROUP_SUPER_MAGIC, configfsMagic,
        fusectlMagic,
    };
    struct statfs info = {};
    if (::fstatfs(directory, &info) != 0)
        return false;
    const auto type = static_cast<unsigned long>(info.f_type) & 0xffffffffUL;
    return std::find(magics.begin(), magics.end(), type) != magics.end();
}

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

unsigned char typeOf(int directory, const char* name)
{
    struct stat info = {};
    if (::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return DT_UNKNOWN;
    return static_cast<unsigned char>(IFTODT(info.st_mode));
}

void appendName(std::string& path, const char* name)
{
    if (path.empty() || path.back() != '/')
        path += '/';
    path += name;
}

} // namespace

TreeVisitor::Step TreeVisitor::entered(TreeWalk& /*walk*/)
{
    return Step::GoOn;
}

TreeVisitor::Step TreeVisitor::left(TreeWalk& /*walk*/, const char* /*name*/)
{
    return Step::GoOn;
}

TreeVisitor::Step TreeVisitor::failed(TreeWalk& /*walk*/, int /*error*/)
{
    return Step::GoOn;
}

TreeWalk::TreeWalk(Mounts mounts) : m_mounts(mounts), m_entries(entriesSize) {}

TreeWalk::~TreeWalk() = default;

int TreeWalk::run(int at, const char* name, bool followLink, std::string shownAs,
                  TreeVisitor& visitor)
{
    UniqueFd start(::openat(at, name, openFlags | (followLink ? 0 : O_NOFOLLOW)));
    if (!start.isValid())
        return errno;
    m_entersKernelMade = m_mounts == Mounts::SkipKernelMade && isKernelMade(start.get());
    if (m_entersKernelMade && at != AT_FDCWD && !isKernelMade(at))
        return EXDEV;

    m_path = std::move(shownAs);
    m_pending.clear();
    m_pendingStarts.clear();
    m_levels.clear();
    m_closedBefore = 1;
    m_leftSince = 0;
    m_levels.push_back({std::move(start), m_path.size()});

    Step step = showEntries(visitor);
    while (step != Step::Stop && !m_levels.empty()) {
        const bool hasMore = m_pendingStarts.size() > m_levels.back().namesBefore;
        step = hasMore ? descend(visitor) : ascend(visitor);
    }
    m_levels.clear();
    return 0;
}

std::string TreeWalk::pathOf(const char* name) const
{
    std::string path = m_path;
    appendName(path, name);
    return path;
}

/// Shows what the top level's directory holds, and keeps the names to descend into.
TreeWalk::Step TreeWalk::showEntries(TreeVisitor& visitor)
{
    while (true) {
        const ssize_t bytes =
            ::getdents64(m_levels.back().handle.get(), m_entries.data(), m_entries.size());
        if (bytes < 0)
            return visitor.failed(*this, errno);
        if (bytes == 0)
            return Step::GoOn;
        if (showRead(static_cast<std::size_t>(bytes), visitor) == Step::Stop)
            return Step::Stop;
    }
}

TreeWalk::Step TreeWalk::showRead(std::size_t bytes, TreeVisitor& visitor)
{
    const char* const end = m_entries.data() + bytes;
    for (const char* at = m_entries.data(); at < end;) {
        const auto* found = reinterpret_cast<const dirent64*>(at);
        at += found->d_reclen;
        if (isDotOrDotDot(found->d_name))
            continue;
        unsigned char type = found->d_type;
        if (type == DT_UNKNOWN)
            type = typeOf(m_levels.back().handle.get(), found->d_name);
        Watchdog::step();
        const TreeEntry entry{found->d_name, type};
        const Step step = visitor.entry(*this, entry);
        if (step == Step::Stop)
            return step;
        if (step == Step::Descend && type == DT_DIR) {
            m_pendingStarts.push_back(m_pending.size());
            m_pending.append(found->d_name, std::strlen(found->d_name) + 1);
        }
    }
    return Step::GoOn;
}

/// Opens the next directory to descend into, and shows what it holds.
TreeWalk::Step TreeWalk::descend(TreeVisitor& visitor)
{
    const std::size_t parentPathSize = m_path.size();
    appendName(m_path, m_pending.data() + m_pendingStarts.back());
    const char* name = m_pending.data() + m_pendingStarts.back();
    const int opened = openEntry(directory(), name);
    const int error = errno;
    m_pending.resize(m_pendingStarts.back());
    m_pendingStarts.pop_back();
    if (opened < 0) {
        const Step step = visitor.failed(*this, error);
        m_path.resize(parentPathSize);
        return step;
    }
    m_levels.push_back({UniqueFd(opened), m_path.size(), m_pendingStarts.size()});
    if (m_levels.size() - m_closedBefore >= m_handleLimit)
        closeOldest();
    if (visitor.entered(*this) == Step::Stop)
        return Step::Stop;
    return showEntries(visitor);
}

TreeWalk::Step TreeWalk::ascend(TreeVisitor& visitor)
{
    leaveLevel();
    if (m_levels.empty())
        return Step::GoOn;
    const std::size_t parentPathSize = m_levels.back().pathSize;
    const std::size_t nameStart = m_path.find_first_not_of('/', parentPathSize);
    const std::string name = m_path.substr(nameStart);
    m_path.resize(parentPathSize);
    return visitor.left(*this, name.c_str());
}

/// A handle of the directory `name` in `parent`, or -1 and errno.
int TreeWalk::openEntry(int parent, const char* name)
{
    if (parent < 0) {
        errno = ENOENT;
        return -1;
    }
    int opened = openWithin(parent, name);
    // The process may be allowed fewer handles than a walk would like to have.
    while (opened < 0 && (errno == EMFILE || errno == ENFILE) &&
           m_closedBefore + 1 < m_levels.size()) {
        m_handleLimit = m_levels.size() - m_closedBefore;
        closeOldest();
        opened = openWithin(parent, name);
    }
    return opened;
}

int TreeWalk::openWithin(int parent, const char* name)
{
    constexpr int flags = openFlags | O_NOFOLLOW;
    Watchdog::step();
    if (m_hasOpenat2) {
        open_how how = {};
        how.flags = flags;
        how.resolve = RESOLVE_NO_XDEV; // tells of a mount without a call more for each directory
        const auto opened =
            static_cast<int>(::syscall(SYS_openat2, parent, name, &how, sizeof(how)));
        if (opened >= 0)
            return opened;
        m_hasOpenat2 = errno != ENOSYS && errno != EPERM; // sandboxes refuse what they do not know
        if (m_hasOpenat2 && (errno != EXDEV || m_mounts == Mounts::Stay))
            return -1;
    }
    UniqueFd opened(::openat(parent, name, flags));
    if (opened.isValid() && isForbidden(parent, opened.get())) {
        errno = EXDEV;
        return -1;
    }
    return opened.release();
}

bool TreeWalk::isForbidden(int parent, int opened) const
{
    if (m_mounts == Mounts::SkipKernelMade)
        return !m_entersKernelMade && isKernelMade(opened);
    struct stat above = {};
    struct stat below = {};
    return ::fstat(parent, &above) != 0 || ::fstat(opened, &below) != 0 ||
           above.st_dev != below.st_dev;
}

/// The handle nearest to the start is the one that is needed last. The start's own stays open: all
/// others can be had again from below or from there.
void TreeWalk::closeOldest()
{
    Level& level = m_levels[m_closedBefore];
    struct stat info = {};
    if (::fstat(level.handle.get(), &info) == 0) {
        level.device = info.st_dev;
        level.inode = info.st_ino;
    }
    level.handle = UniqueFd();
    ++m_closedBefore;
}

int TreeWalk::directory()
{
    if (!m_levels.back().handle.isValid() && !reopen())
        return -1;
    return m_levels.back().handle.get();
}

/// Drops the top level. Where the one above has no handle, it is opened as the directory in which the
/// dropped one lies. Now and then that is left to reopen(), which alone notices what was moved
/// further up: so rarely that it opens no more directories than the walk has left meanwhile.
void TreeWalk::leaveLevel()
{
    const UniqueFd below = std::move(m_levels.back().handle);
    m_levels.pop_back();
    m_closedBefore = std::min(m_closedBefore, m_levels.size());
    ++m_leftSince;
    if (m_levels.empty() || m_levels.back().handle.isValid())
        return;
    if (m_leftSince < std::max(leastBetweenChecks, m_levels.size()))
        hold(openSame(below.get(), "..", m_levels.size() - 1));
}

/// Opens the top level again, from the start by the names. What is not there any more is lost, with
/// all below it: else it would be looked for at every level on the way back.
bool TreeWalk::reopen()
{
    const std::size_t top = m_levels.size() - 1;
    if (m_levels[top].isLost)
        return false;
    m_leftSince = 0;
    UniqueFd reached;
    for (std::size_t i = 1; i <= top; ++i) {
        const std::size_t start = m_path.find_first_not_of('/', m_levels[i - 1].pathSize);
        const std::string name = m_path.substr(start, m_levels[i].pathSize - start);
        const UniqueFd& parent = i == 1 ? m_levels.front().handle : reached;
        reached = openSame(parent.get(), name.c_str(), i);
        if (!reached.isValid()) {
            std::for_each(m_levels.begin() + static_cast<std::ptrdiff_t>(i), m_levels.end(),
                          [](Level& level) { level.isLost = true; });
            return false;
        }
    }
    hold(std::move(reached));
    return true;
}

/// Makes `opened` the top level's handle, the only one but the start's.
void TreeWalk::hold(UniqueFd opened)
{
    if (!opened.isValid())
        return;
    m_levels.back().handle = std::move(opened);
    m_closedBefore = m_levels.size() - 1;
}

/// The directory of `level` again, or none where another one has taken its place.
UniqueFd TreeWalk::openSame(int parent, const char* name, std::size_t level) const
{
    Watchdog::step();
    UniqueFd opened(::openat(parent, name, openFlags | O_NOFOLLOW));
    struct stat info = {};
    if (!opened.isValid() || ::fstat(opened.get(), &info) != 0 ||
        info.st_dev != m_levels[level].device || info.st_ino != m_levels[level].inode)
        return UniqueFd();
    return opened;
}

} // namespace korvane::linux_platform
