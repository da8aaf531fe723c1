// Making sure that a file's content outlives a power failure.
#pragma once

namespace korvane::platform {

/// Waits until what was written to the open file `handle`, as of QFile::handle(), is on the disk. False
/// where it did not get there. Any thread. Linux: fdatasync. Windows: FlushFileBuffers. Without a back
/// end: true, and the system writes it when it likes.
bool syncFile(int handle);

} // namespace korvane::platform
