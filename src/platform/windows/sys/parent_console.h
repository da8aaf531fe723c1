// The console of whoever started a program that has none.
#pragma once

namespace korvane::windows_platform {

/// Leaves the parent's console where prepareProcess() has joined it: its closing, and an interrupt for the
/// shell that has gone on with the next command, would end this program too. Main thread.
void leaveParentConsole();

} // namespace korvane::windows_platform
