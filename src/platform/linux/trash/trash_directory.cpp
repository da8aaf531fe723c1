// Keeps a trash directory: its names, its info files, and what moves in.
#include "platform/linux/trash/trash_directory.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/trash/directory_path.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

constexpr auto newInfo = "new";

/// Renames, but never over something.
int renameToFree(int fromDirectory, const char* from, int toDirectory, const char* to)
{
    if (::renameat2(fromDirectory, from, toDirectory, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    if (hasEntry(toDirectory, to)) // a file system that cannot see to that itself
        return EEXIST;
    return ::renameat(fromDirectory, from, toDirectory, to) == 0 ? 0 : errno;
}

/// Renames a directory of this user's that may not be written to, as its entry ".." has to be.
int renameUnwritable(int fromDirectory, const char* from, int toDirectory, const char* to)
{
    const UniqueFd entry(::openat(fromDirectory, from, directoryFlags));
    struct stat info = {};
    if (!entry.isValid() || ::fstat(entry.get(), &info) != 0 || (info.st_mode & S_IWUSR) != 0 ||
        info.st_uid != ::geteuid() ||
        ::fchmod(entry.get(), (info.st_mode & ALLPERMS) | S_IWUSR) != 0)
        return EACCES;
    const int error = renameToFree(fromDirectory, from, toDirectory, to);
    (void)::fchmod(entry.get(), info.st_mode & ALLPERMS);
    return error;
}

int moveEntry(int fromDirectory, const char* from, int toDirectory, const char* to)
{
    const int error = renameToFree(fromDirectory, from, toDirectory, to);
    return error == EACCES ? renameUnwritable(fromDirectory, from, toDirectory, to) : error;
}

/// `name` with `suffix`, shortened to `limit` bytes without cutting a character.
QByteArray fitting(const QByteArray& name, const QByteArray& suffix, qsizetype limit)
{
    qsizetype size = std::min(name.size(), limit - suffix.size());
    while (size > 0 && size < name.size() &&
           (static_cast<unsigned char>(name[size]) & 0xC0U) == 0x80U)
        --size;
    return name.first(size) + suffix;
}

/// What tells the `attempt`th name from the first one.
QByteArray suffixOf(int attempt)
{
    constexpr int countedAttempts = 10;
    if (attempt == 0)
        return {};
    if (attempt < countedAttempts)
        return '.' + QByteArray::number(attempt + 1);
    return '.' + QByteArray::number(QRandomGenerator::global()->generate64(), 16);
}

} // namespace

QByteArray TrashDirectory::homePath()
{
    QByteArray data = qgetenv("XDG_DATA_HOME");
    if (!data.startsWith('/'))
        data = QFile::encodeName(QDir::homePath()) + "/.local/share";
    return data.startsWith('/') ? data + "/Trash" : QByteArray();
}

std::unique_ptr<TrashDirectory> TrashDirectory::ofHome()
{
    const QByteArray path = homePath();
    if (path.isEmpty())
        return nullptr;
    // A link here is the user's own doing; or root's, for whom nothing is made in another user's home.
    const OrErrno<DirectoryAtPath> opened = openDirectoryAt(path, MissingDirectories::Make);
    return opened ? openIn(openOwnDirectory(opened->handle.get(), "."), {}) : nullptr;
}

std::unique_ptr<TrashDirectory> TrashDirectory::ofVolume(int top, const QByteArray& topPath)
{
    const QByteArray user = QByteArray::number(::geteuid());
    UniqueFd root;
    const UniqueFd shared(::openat(top, ".Trash", directoryFlags));
    struct stat info = {};
    if (shared.isValid() && ::fstat(shared.get(), &info) == 0 && (info.st_mode & S_ISVTX) != 0)
        root = openOwnDirectory(shared.get(), user.constData());
    if (!root.isValid())
        root = openOwnDirectory(top, (".Trash-" + user).constData());
    return openIn(std::move(root), topPath);
}

/// The trash in the directory `root`; none where that or something in it cannot be used.
std::unique_ptr<TrashDirectory> TrashDirectory::openIn(UniqueFd root, QByteArray top)
{
    std::unique_ptr<TrashDirectory> trash(new TrashDirectory(std::move(root), std::move(top)));
    const bool isUsable = trash->m_root.isValid() && trash->m_info.isValid() &&
                          trash->m_files.isValid() && trash->m_staging.isValid();
    return isUsable ? std::move(trash) : nullptr;
}

TrashDirectory::TrashDirectory(UniqueFd root, QByteArray top)
    : m_root(std::move(root)), m_info(openOwnDirectory(m_root.get(), "info")),
      m_files(openOwnDirectory(m_root.get(), "files")),
      m_staging(m_root.get(), m_info.get(), m_files.get()), m_top(std::move(top)),
      m_nameLimit(::fpathconf(m_files.get(), _PC_NAME_MAX))
{
    if (m_nameLimit <= 0 || m_nameLimit > NAME_MAX)
        m_nameLimit = NAME_MAX;
}

int TrashDirectory::writeNewInfo(const QByteArray& text) const
{
    const UniqueFd file(::openat(m_staging.handle(), newInfo,
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.isValid())
        return errno;
    const ssize_t written = ::write(file.get(), text.constData(), static_cast<size_t>(text.size()));
    if (written == text.size())
        return 0;
    const int error = written < 0 ? errno : ENOSPC; // what a short write means
    (void)::unlinkat(m_staging.handle(), newInfo, 0);
    return error;
}

/// Gives the new info file the name of an entry, here and in info/. 0, or an errno: EEXIST where
/// another entry has it.
int TrashDirectory::publish(const QByteArray& name) const
{
    const int taken = lookUp(m_files.get(), name.constData());
    if (taken != ENOENT)
        return taken == 0 ? EEXIST : taken;
    const int staging = m_staging.handle();
    const QByteArray info = name + infoEnding;
    int error = renameToFree(staging, newInfo, staging, info.constData());
    if (error == 0 && ::linkat(staging, info.constData(), m_info.get(), info.constData(), 0) != 0) {
        error = errno;
        (void)renameToFree(staging, info.constData(), staging, newInfo);
    }
    return error;
}

OrErrno<QByteArray> TrashDirectory::reserve(const QByteArray& path)
{
    constexpr int attempts = 100;
    const bool isAbsolute = m_top.isEmpty();
    const qsizetype skipped = isAbsolute ? 0 : m_top.size() + (m_top.endsWith('/') ? 0 : 1);
    const QByteArray text =
        "[Trash Info]\nPath=" + path.sliced(skipped).toPercentEncoding("/") +
        "\nDeletionDate=" + QDateTime::currentDateTime().toString(Qt::ISODate).toLatin1() + '\n';
    int error = writeNewInfo(text);
    if (error != 0)
        return error;

    const QByteArray wanted = path.sliced(path.lastIndexOf('/') + 1);
    const qsizetype limit = m_nameLimit - static_cast<qsizetype>(std::strlen(infoEnding));
    error = EEXIST;
    for (int attempt = 0; attempt < attempts && error == EEXIST; ++attempt) {
        const QByteArray name = fitting(wanted, suffixOf(attempt), limit);
        error = publish(name);
        if (error == 0)
            return name;
    }
    (void)::unlinkat(m_staging.handle(), newInfo, 0);
    return error;
}

void TrashDirectory::release(const QByteArray& name)
{
    const QByteArray info = name + infoEnding;
    (void)::unlinkat(m_info.get(), info.constData(), 0);
    (void)::unlinkat(m_staging.handle(), info.constData(), 0);
}

int TrashDirectory::accept(int parent, const char* from, const QByteArray& name)
{
    const int error = moveEntry(parent, from, m_files.get(), name.constData());
    if (error == 0)
        (void)::unlinkat(m_staging.handle(), (name + infoEnding).constData(), 0);
    return error;
}

int TrashDirectory::takeOut(const QByteArray& name, const QByteArray& to)
{
    return moveEntry(m_files.get(), name.constData(), m_staging.handle(), to.constData());
}

int TrashDirectory::sync() const
{
    return ::syncfs(m_root.get()) == 0 ? 0 : errno;
}

} // namespace korvane::linux_platform
