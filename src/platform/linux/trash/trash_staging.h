// The place beside a trash's files where entries are made before they appear there.
#pragma once

#include "platform/linux/sys/proc_fs.h"

#include <QByteArray>

namespace korvane::linux_platform {

/// A directory of one call's own in a trash, locked while this object lives. What calls that were
/// killed have left there is cleared first.
///
/// An info file has a second name here until its entry has arrived: that is how one of a call that
/// was killed is told from those of other programs.
class TrashStaging
{
public:
    TrashStaging(int trash, int info, int files);
    ~TrashStaging();
    TrashStaging(const TrashStaging&) = delete;
    TrashStaging& operator=(const TrashStaging&) = delete;
    TrashStaging(TrashStaging&&) = delete;
    TrashStaging& operator=(TrashStaging&&) = delete;

    bool isValid() const { return m_own.isValid(); }
    int handle() const { return m_own.get(); }

private:
    void clearStale(int info, int files);
    void makeOwn();

    UniqueFd m_parent; ///< Where each call has its own.
    UniqueFd m_own;
    QByteArray m_ownName;
};

/// The ending of an info file's name.
inline constexpr auto infoEnding = ".trashinfo";

/// Makes the directory `name` in `parent` where there is none, and opens it. Invalid unless it is
/// one of this user's own; a link never is.
UniqueFd openOwnDirectory(int parent, const char* name);

} // namespace korvane::linux_platform
