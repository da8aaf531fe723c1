// Makes and clears the staging places of trash directories.
#include "platform/linux/trash/trash_staging.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/trash/tree_removal.h"

#include <QRandomGenerator>

#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace korvane::linux_platform {

namespace {

constexpr auto stagingName = "korvane-staging";

std::vector<QByteArray> namesIn(int directory)
{
    std::vector<QByteArray> names;
    const DirectoryHandle handle = openDirectory(directory, ".");
    while (const dirent* found = handle ? ::readdir(handle.get()) : nullptr) {
        const QByteArray name(found->d_name);
        if (name != "." && name != "..")
            names.push_back(name);
    }
    return names;
}

/// Whether the names of both directories are of one and the same file.
bool areSameFile(int directory, const QByteArray& name, int otherDirectory, const QByteArray& other)
{
    struct stat here = {};
    struct stat there = {};
    return ::fstatat(directory, name.constData(), &here, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstatat(otherDirectory, other.constData(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           isSameFile(here, there);
}

/// Removes the info files whose entries have never arrived.
void withdrawInfoFiles(int staged, int info, int files)
{
    for (const QByteArray& name : namesIn(staged)) {
        if (!name.endsWith(infoEnding) || !areSameFile(staged, name, info, name))
            continue;
        if (!hasEntry(files,
                      name.chopped(static_cast<qsizetype>(std::strlen(infoEnding))).constData()))
            ::unlinkat(info, name.constData(), 0);
    }
}

} // namespace

UniqueFd openOwnDirectory(int parent, const char* name)
{
    if (::mkdirat(parent, name, S_IRWXU) != 0 && errno != EEXIST)
        return UniqueFd();
    UniqueFd opened(::openat(parent, name, directoryFlags));
    struct stat info = {};
    const bool isOwn =
        opened.isValid() && ::fstat(opened.get(), &info) == 0 && info.st_uid == ::geteuid();
    return isOwn ? std::move(opened) : UniqueFd();
}

TrashStaging::TrashStaging(int trash, int info, int files)
    : m_parent(openOwnDirectory(trash, stagingName))
{
    if (!m_parent.isValid())
        return;
    clearStale(info, files);
    makeOwn();
}

TrashStaging::~TrashStaging()
{
    if (m_own.isValid())
        (void)removeTree(m_parent.get(), m_ownName.constData());
}

void TrashStaging::clearStale(int info, int files)
{
    for (const QByteArray& name : namesIn(m_parent.get())) {
        const UniqueFd staged(::openat(m_parent.get(), name.constData(), directoryFlags));
        if (!staged.isValid() || ::flock(staged.get(), LOCK_EX | LOCK_NB) != 0)
            continue;
        withdrawInfoFiles(staged.get(), info, files);
        (void)removeTree(m_parent.get(), name.constData());
    }
}

void TrashStaging::makeOwn()
{
    constexpr int tries =
        8; // each may be lost to a call that takes the new directory for a stale one
    for (int i = 0; i < tries && !m_own.isValid(); ++i) {
        m_ownName = QByteArray::number(QRandomGenerator::system()->generate64(), 16);
        if (::mkdirat(m_parent.get(), m_ownName.constData(), S_IRWXU) != 0)
            return;
        UniqueFd made(::openat(m_parent.get(), m_ownName.constData(), directoryFlags));
        if (made.isValid() && ::flock(made.get(), LOCK_EX | LOCK_NB) == 0 &&
            areSameFile(made.get(), ".", m_parent.get(), m_ownName))
            m_own = std::move(made);
    }
    // Else what is made here would inherit rights that its original does not have.
    if (m_own.isValid())
        (void)::fremovexattr(m_own.get(), "system.posix_acl_default");
}

} // namespace korvane::linux_platform
