// No way to wait for the disk.
#include "platform/file_sync.h"

bool korvane::platform::syncFile(int /*handle*/)
{
    return true;
}
