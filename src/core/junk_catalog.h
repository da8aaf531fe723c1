// The kinds of removable junk that the program knows, and where they lie.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace korvane {

/// The values order the groups.
enum class JunkGroup : qint32 {
    system = 0,
    browser = 1,
    devtools = 2,
};

enum class JunkSafety : qint32 {
    safe = 0,    ///< Its removal has no side effect.
    caution = 1, ///< Its removal costs something: a download, an index to be built again.
};

/// One kind of junk.
struct JunkCategory
{
    QString id;          ///< Stable, unique, in lower snake case.
    QString name;        ///< For the user.
    QString description; ///< For the user, side effects of the removal included.
    JunkGroup group = JunkGroup::system;
    JunkSafety safety = JunkSafety::safe;
    QStringList roots;          ///< Clean paths of what existed when the catalog was built.
    QStringList patterns;       ///< Wildcards of file names; none means all that is in the roots.
    QStringList guardProcesses; ///< Programs during whose run it must not be removed.
};

/// The kinds of junk that have a root on this machine now, in their fixed order. Built anew by each
/// call from the variables LOCALAPPDATA, APPDATA, SystemRoot (or windir) and ProgramData, the home
/// and the directory of temporary files; what lies on another machine is left out. Runs on any thread.
QList<JunkCategory> knownJunkCategories();

} // namespace korvane
