// The framework's log, by which lines for standard error go.
#pragma once

namespace korvane::platform {

/// Has the framework read the rules of its log now, without those in the user's configuration: else the
/// first line, whenever that is, would look for them in a home that may be on a dead server. Call while
/// there is no other thread, which may be asking for the environment.
void readLogRulesWithoutHome();

} // namespace korvane::platform
