// What the recycle bin of a drive can take.
#pragma once

#include <QString>

namespace korvane::windows_platform {

/// Why the bin of the volume on which `path` lies cannot take `bytes`, in a word or two; empty where
/// nothing speaks against it. Only fixed drives have one, which the user or a policy can switch off;
/// its size is the user's setting.
QString whyBinCannotTake(const QString& path, qint64 bytes);

/// Whether the shell knows of a bin there, by SHQueryRecycleBinW: Windows does not on some drives whose
/// bin was not used yet, Wine never does without a home for it.
bool isBinThere(const QString& path);

} // namespace korvane::windows_platform
