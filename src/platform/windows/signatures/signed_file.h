// A file whose signature is asked for, open once for all that is asked.
#pragma once

#include "platform/windows/sys/handle.h"

#include <QString>

#include <optional>

namespace korvane::windows_platform {

/// Nobody can write to it while it is open.
struct SignedFile
{
    QString path; ///< In the extended form.
    UniqueHandle handle;
    qint64 size = 0;
};

/// Opens the file at `path`; none where that cannot be done, and for whatever is not a file on a drive:
/// opening a share hands the user's credentials to its server. Content that is elsewhere (a cloud's
/// placeholder) is not fetched either.
std::optional<SignedFile> openSignedFile(const QString& path);

} // namespace korvane::windows_platform
