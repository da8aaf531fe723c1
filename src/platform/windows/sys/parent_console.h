// The console of whoever started a program that has none.
#pragma once

namespace korvane::windows_platform {

/// Joins it where standard output was not handed over. Main thread.
void joinParentConsole();

/// Leaves it again, where it was joined: its closing, and an interrupt for the shell that has gone on
/// with the next command, would end this program too.
void leaveParentConsole();

} // namespace korvane::windows_platform
