// Texts of the system are UTF-8, whatever the environment says of them.
#pragma once

namespace korvane::platform {

/// Makes the locale a UTF-8 one, as the framework does itself, which however says so on standard
/// error: the bare environment that clients start a server with names no encoding at all. Call before
/// there is an application object.
void useUtf8Locale();

} // namespace korvane::platform
