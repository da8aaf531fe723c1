// Waiting for the disk.
#include "platform/file_sync.h"

#include <bit>

#include <io.h>
#include <windows.h>

bool korvane::platform::syncFile(int handle)
{
    return FlushFileBuffers(std::bit_cast<HANDLE>(_get_osfhandle(handle))) != FALSE;
}
