// Waiting for the disk.
#include "platform/file_sync.h"

#include <unistd.h>

bool korvane::platform::syncFile(int handle)
{
    return ::fdatasync(handle) == 0;
}
