// Scheduled tasks that start with the machine or a session.
#pragma once

#include "base/system_records.h"

#include <optional>

namespace korvane::windows_platform {

/// The item that a task's definition makes, without its name; none where it has no trigger at boot or
/// logon, or cannot be read. Its command is the first program that it runs, empty where it runs none. It
/// is enabled if one of those triggers is.
std::optional<StartupItem> itemOfTask(const QString& xml);

} // namespace korvane::windows_platform
