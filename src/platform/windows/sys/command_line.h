// Commands as programs register them: which program they start.
#pragma once

#include <QString>

namespace korvane::windows_platform {

struct Command
{
    QString executable; ///< As far as it can be told: a full path where the file was found.
    QString arguments;
};

/// Takes a registered command apart, as CreateProcess does: %variables% are replaced; of an unquoted
/// path with blanks the shortest beginning that is a file counts, with ".exe" where it has no extension;
/// a bare name is looked for in the system's two directories. Nothing but local drives is looked at.
Command splitCommand(const QString& line);

/// The path of a program that is registered apart from its arguments.
QString programPath(const QString& registered);

/// Whether there is a file (not a directory) at `path`; false for all that is not on a local drive,
/// without asking there.
bool isLocalFile(const QString& path);

} // namespace korvane::windows_platform
