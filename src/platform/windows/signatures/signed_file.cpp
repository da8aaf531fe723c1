// Opens what can be verified, and nothing else.
#include "platform/windows/signatures/signed_file.h"

#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/text.h"

namespace korvane::windows_platform {

std::optional<SignedFile> openSignedFile(const QString& path)
{
    constexpr DWORD recallOnDataAccess = 0x400000; // FILE_ATTRIBUTE_..., which some headers lack.
    constexpr DWORD elsewhere = FILE_ATTRIBUTE_OFFLINE | recallOnDataAccess;
    if (!isOnDrive(path) || path.contains(QChar::Null))
        return std::nullopt;
    SignedFile file{extendedPath(displayPath(path)), nullptr};
    file.handle =
        owned(CreateFileW(wide(file.path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    BY_HANDLE_FILE_INFORMATION information{};
    if (!file.handle || GetFileType(file.handle.get()) != FILE_TYPE_DISK ||
        GetFileInformationByHandle(file.handle.get(), &information) == FALSE ||
        (information.dwFileAttributes & elsewhere) != 0)
        return std::nullopt;
    file.size = (qint64{information.nFileSizeHigh} << 32) | information.nFileSizeLow;
    return file;
}

} // namespace korvane::windows_platform
