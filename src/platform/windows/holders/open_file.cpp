// Asks handles for their file.
#include "platform/windows/holders/open_file.h"

#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <string>

namespace korvane::windows_platform {

namespace {

template <typename Part> void append(QByteArray& bytes, const Part& part)
{
    bytes.append(reinterpret_cast<const char*>(&part), sizeof part);
}

QByteArray readIdentity(HANDLE file)
{
    QByteArray identity;
    FILE_ID_INFO id{};
    BY_HANDLE_FILE_INFORMATION old{};
    if (GetFileInformationByHandleEx(file, FileIdInfo, &id, sizeof id) != FALSE) {
        append(identity, id.VolumeSerialNumber);
        append(identity, id.FileId);
    } else if (GetFileInformationByHandle(file, &old) != FALSE) { // file systems without wide ids
        append(identity, old.dwVolumeSerialNumber);
        append(identity, old.nFileIndexHigh);
        append(identity, old.nFileIndexLow);
    }
    return identity;
}

QString pathOf(HANDLE file)
{
    constexpr DWORD longest = 32 * 1024;
    std::wstring path(MAX_PATH, L'\0');
    for (DWORD form : {FILE_NAME_NORMALIZED, FILE_NAME_OPENED}) { // the first may be refused
        form |= VOLUME_NAME_NT;
        DWORD size =
            GetFinalPathNameByHandleW(file, path.data(), static_cast<DWORD>(path.size()), form);
        if (size > path.size() && size < longest) {
            path.resize(size);
            size = GetFinalPathNameByHandleW(file, path.data(), size, form);
        }
        if (size > 0 && size <= path.size())
            return fromWide({path.data(), size});
    }
    return {};
}

} // namespace

std::optional<OpenFile> describe(HANDLE handle, Detail detail)
{
    if (GetFileType(handle) != FILE_TYPE_DISK)
        return std::nullopt;
    OpenFile file{readIdentity(handle), {}};
    if (detail == Detail::Path || file.identity.isEmpty())
        file.path = pathOf(handle);
    return file;
}

std::optional<OpenFile> describeIn(HANDLE process, quint64 handle, Detail detail)
{
    HANDLE copy = nullptr;
    if (DuplicateHandle(process, asHandle(handle), GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS) == FALSE)
        return std::nullopt;
    const UniqueHandle owner(copy);
    return describe(copy, detail);
}

bool isSameFile(const OpenFile& one, const OpenFile& other)
{
    if (!one.identity.isEmpty() && !other.identity.isEmpty())
        return one.identity == other.identity;
    return !one.path.isEmpty() && one.path.compare(other.path, Qt::CaseInsensitive) == 0;
}

bool isBelow(const OpenFile& file, const OpenFile& folder)
{
    const qsizetype size = folder.path.size() - (folder.path.endsWith(u'\\') ? 1 : 0);
    return size > 0 && file.path.size() > size + 1 && file.path[size] == u'\\' &&
           QStringView(file.path).first(size).compare(QStringView(folder.path).first(size),
                                                      Qt::CaseInsensitive) == 0;
}

} // namespace korvane::windows_platform
