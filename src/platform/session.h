// What the person's session starts by itself.
#pragma once

#include "base/op_result.h"

namespace korvane::platform {

/// Whether the session starts this program as it begins. Any thread.
/// Linux: the entry of the application's name in autostart/ of the configuration directory. Windows: the
/// value of that name in the user's Run key, unless StartupApproved says that it is switched off.
bool startsWithSession();

/// Has the session start this program, with the argument --background, or not; not ok, with what is in
/// the way, where that cannot be set. Any thread.
/// Linux: writes or removes that entry. Windows: that value, of 260 characters at most.
/// Without a back end: not ok.
OpResult setStartsWithSession(bool starts);

} // namespace korvane::platform
