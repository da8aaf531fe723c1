// Goes paths name by name, looking at what is mounted before each step.
#include "platform/linux/trash/path_follower.h"

#include "platform/linux/sys/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

constexpr int linkLimit = 40; // the kernel's own
constexpr int stepLimit = 256;

/// Opens what is there itself, a link too, but nothing that is mounted on it.
int openBeside(int directory, const char* name)
{
    constexpr int flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    open_how how = {};
    how.flags = flags;
    how.resolve = RESOLVE_NO_XDEV;
    const auto opened =
        static_cast<int>(::syscall(SYS_openat2, directory, name, &how, sizeof(how)));
    const bool isRefused = opened < 0 && (errno == ENOSYS || errno == EPERM);
    return isRefused ? ::openat(directory, name, flags) : opened; // as sandboxes do
}

bool statOf(int handle, struct statx& found)
{
    constexpr int flags = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
    return ::statx(handle, "", flags, STATX_TYPE | STATX_INO, &found) == 0;
}

QByteArray placeUnder(const MountTable& table, const QByteArray& path)
{
    const std::vector<const Mount*> mounts = table.under(path);
    return mounts.empty() ? QByteArray() : mounts.front()->place;
}

} // namespace

std::vector<std::pair<dev_t, ino_t>> PathFollower::follow(const QByteArray& path)
{
    m_found.clear();
    m_links = 0;
    m_ahead = path;
    int error = goToRoot();
    if (error == 0 && path.size() >= PATH_MAX)
        error = ENAMETOOLONG;
    for (int steps = 0; error == 0 && steps < stepLimit && !m_ahead.isEmpty(); ++steps) {
        const qsizetype end = m_ahead.indexOf('/');
        const QByteArray name = m_ahead.first(end < 0 ? m_ahead.size() : end);
        m_ahead = end < 0 ? QByteArray() : m_ahead.sliced(end + 1);
        if (!name.isEmpty() && name != ".")
            error = step(name);
    }
    if (isOwnFailure(error))
        m_error = error;
    noteHere();
    return std::move(m_found);
}

int PathFollower::goToRoot()
{
    m_path = "/";
    m_here = UniqueFd(); // first: another handle may be one too many
    m_here = UniqueFd(::openat(m_proc, m_root.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return m_here.isValid() ? 0 : errno;
}

int PathFollower::step(const QByteArray& name)
{
    if (name != "..")
        return goTo((m_path == "/" ? "/" : m_path + '/') + name, name);
    noteHere();
    const qsizetype slash = m_path.lastIndexOf('/');
    return m_path == "/" ? 0 : goTo(m_path.first(std::max(slash, qsizetype{1})), name);
}

/// Goes to the entry `name` of the present directory, which is at `path`.
int PathFollower::goTo(const QByteArray& path, const QByteArray& name)
{
    if (!m_table.isLocal(path))
        return EXDEV;
    const char* entry = name.constData();
    const bool isCrossing = placeUnder(m_table, m_path) != placeUnder(m_table, path);
    UniqueFd next(isCrossing ? ::openat(m_here.get(), entry, O_PATH | O_NOFOLLOW | O_CLOEXEC)
                             : openBeside(m_here.get(), entry));
    struct statx found = {};
    if (!next.isValid() || !statOf(next.get(), found))
        return errno;
    if (S_ISDIR(found.stx_mode)) {
        m_here = std::move(next);
        m_path = path;
        return 0;
    }
    m_found.emplace_back(makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino);
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlinkat(next.get(), "", target.data(), target.size());
    if (!S_ISLNK(found.stx_mode) || size < 0 || ++m_links > linkLimit)
        return ENOTDIR;
    next = UniqueFd();
    m_ahead = QByteArray(target.data(), size) + '/' + m_ahead;
    return m_ahead.startsWith('/') ? goToRoot() : 0;
}

void PathFollower::noteHere()
{
    struct statx found = {};
    if (!m_here.isValid() || !statOf(m_here.get(), found))
        return;
    const std::pair here(makedev(found.stx_dev_major, found.stx_dev_minor), ino_t{found.stx_ino});
    if (m_found.empty() || m_found.back() != here)
        m_found.push_back(here);
}

} // namespace korvane::linux_platform
