// What an open handle is a handle of.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

#include <windows.h>

namespace korvane::windows_platform {

/// A file or folder on a disk, by what stays the same whatever it is called.
struct OpenFile
{
    QByteArray
        identity; ///< Of its volume and of itself in it; empty where the handle may not read it.
    QString
        path; ///< With its volume's own name ("\Device\…"), and long names; empty if not asked for.
};

/// How much is asked for: paths take longer than all else.
enum class Detail { Identity, Path };

/// What `handle` is open on; none where that is no file on a disk. May never return, as for a pipe that
/// another thread reads from. A path is asked for too where there is no identity. GetFileType,
/// GetFileInformationByHandleEx, GetFinalPathNameByHandleW.
std::optional<OpenFile> describe(HANDLE handle, Detail detail);

/// describe() of a handle in another process, opened for PROCESS_DUP_HANDLE.
std::optional<OpenFile> describeIn(HANDLE process, quint64 handle, Detail detail);

/// The handle with this number, as the table of handles and HeldFile have it.
inline HANDLE asHandle(quint64 number)
{
    return reinterpret_cast<HANDLE>(static_cast<quintptr>(number));
}

/// What tells the file from others: its identity, or else its path.
inline QByteArray identityOf(const OpenFile& file)
{
    return file.identity.isEmpty() ? file.path.toUtf8() : file.identity;
}

/// By identity where both have one, else by path.
bool isSameFile(const OpenFile& one, const OpenFile& other);

/// Whether `file` lies somewhere in `folder`; both with paths.
bool isBelow(const OpenFile& file, const OpenFile& folder);

} // namespace korvane::windows_platform
