// One recycle bin on disk, as file managers share it: FreeDesktop.org's trash.
#pragma once

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/trash/or_errno.h"
#include "platform/linux/trash/trash_staging.h"

#include <QByteArray>

#include <memory>

namespace korvane::linux_platform {

/// A trash directory: files/ with the entries, info/ with a file for each that tells where it was and
/// since when it is here. All in it is the user's own, and nobody else's to see.
class TrashDirectory
{
public:
    /// Where the user's own trash is, $XDG_DATA_HOME/Trash; empty where there is no home.
    static QByteArray homePath();

    /// The user's own trash, made where it is missing; none where that cannot be.
    static std::unique_ptr<TrashDirectory> ofHome();

    /// The user's trash on the volume with the top directory `top`, made where it is missing; none
    /// where that cannot be, and where another user may have made what is there.
    static std::unique_ptr<TrashDirectory> ofVolume(int top, const QByteArray& topPath);

    /// A handle of the directory, for what concerns its file system.
    int handle() const { return m_root.get(); }

    /// A place on its file system where entries are made before they go to files/.
    const TrashStaging& staging() const { return m_staging; }

    /// Takes a name for the entry with this real path and writes its info file. Nothing may move in
    /// before sync().
    OrErrno<QByteArray> reserve(const QByteArray& path);

    /// Gives a reserved name back.
    void release(const QByteArray& name);

    /// Moves the entry `from` of the directory `parent` into files/. 0, or an errno: EXDEV where only
    /// a copy can go there.
    int accept(int parent, const char* from, const QByteArray& name);

    /// Moves what was accepted to the staging place again, as `to`; its name is then to be released. 0,
    /// or an errno.
    int takeOut(const QByteArray& name, const QByteArray& to);

    int files() const { return m_files.get(); }

    /// Writes all to the disk; 0, or an errno.
    int sync() const;

private:
    TrashDirectory(UniqueFd root, QByteArray top);

    static std::unique_ptr<TrashDirectory> openIn(UniqueFd root, QByteArray top);
    int writeNewInfo(const QByteArray& text) const;
    int publish(const QByteArray& name) const;

    UniqueFd m_root;
    UniqueFd m_info;
    UniqueFd m_files;
    TrashStaging m_staging;
    QByteArray m_top; ///< What its paths are relative to; empty where they are absolute.
    long m_nameLimit;
};

} // namespace korvane::linux_platform
