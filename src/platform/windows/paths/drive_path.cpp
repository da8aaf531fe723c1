// Strict readers: what is not understood is not on a drive.
#include "platform/windows/paths/drive_path.h"

#include "platform/windows/sys/text.h"

#include <QDir>
#include <QRegularExpression>
#include <QtEndian>

#include <algorithm>
#include <string>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestPath = 32767;
constexpr qsizetype rootLength = 3; // "C:\"

bool isDriveRoot(QStringView path)
{
    const char16_t letter = path.size() < rootLength ? u'\0' : path[0].unicode();
    const bool isLetter = (letter >= u'a' && letter <= u'z') || (letter >= u'A' && letter <= u'Z');
    return isLetter && path[1] == u':' && path[2] == u'\\';
}

/// Whether the system takes the name for that of a device, whatever comes after a dot or blanks. Some
/// versions do so only where it comes last, or alone: here it never is a file's.
bool isDeviceName(QStringView name)
{
    static const QRegularExpression device(
        u"\\A(?:CON|PRN|AUX|NUL|CONIN\\$|CONOUT\\$|(?:COM|LPT)[0-9¹²³]) *(?:\\.|\\z)"_s,
        QRegularExpression::CaseInsensitiveOption);
    return device.match(name.toString()).hasMatch();
}

bool isFileName(QStringView name)
{
    constexpr QStringView forbidden = u"<>:\"/|?*";
    const bool hasForbidden = std::any_of(name.begin(), name.end(), [forbidden](QChar c) {
        return c < u' ' || forbidden.contains(c);
    });
    return !hasForbidden && !isDeviceName(name);
}

/// Whether the system takes something from the end of a name in `native`, but for "." and "..": the entry
/// of the whole name, which "\\?\" leads to, is another one.
bool isCutShort(QStringView native)
{
    for (const QStringView name : native.tokenize(u'\\')) {
        if ((name.endsWith(u'.') || name.endsWith(u' ')) && name != u"." && name != u"..")
            return true;
    }
    return false;
}

QString fullPath(const QString& path)
{
    std::wstring buffer(longestPath + 1, L'\0');
    const DWORD length =
        GetFullPathNameW(wide(path), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    return length < buffer.size() ? fromWide({buffer.data(), length}) : QString();
}

/// The number of two bytes at `offset`, which lies within.
quint16 numberAt(const QByteArray& data, qsizetype offset)
{
    return qFromLittleEndian<quint16>(data.constData() + offset);
}

/// Whether it is the kernel's name of a whole volume, which is one of this machine.
bool isVolume(const QString& name)
{
    static const QRegularExpression volume(u"\\A\\\\\\?\\?\\\\Volume\\{[0-9a-f-]{36}\\}\\\\?\\z"_s,
                                           QRegularExpression::CaseInsensitiveOption);
    return volume.match(name).hasMatch();
}

} // namespace

QString drivePath(const QString& path)
{
    constexpr QLatin1StringView unparsed(R"(\\?\)");
    QString native = path.isEmpty() ? u"."_s : QDir::toNativeSeparators(path);
    const bool isUnparsed = native.startsWith(unparsed);
    if (isUnparsed)
        native = native.sliced(unparsed.size());
    if (isUnparsed ? !isDriveRoot(native) : native.startsWith(R"(\\)"_L1))
        return {};
    if (native.size() > longestPath || native.contains(QChar::Null) || isCutShort(native))
        return {};
    QString full = fullPath(native);
    if (!isDriveRoot(full))
        return {};
    const QStringView names = QStringView(full).sliced(rootLength);
    for (const QStringView name : names.tokenize(u'\\')) {
        if (!isFileName(name))
            return {};
    }
    return full;
}

QString parentPath(const QString& drivePath)
{
    return drivePath.first(std::max(drivePath.lastIndexOf(u'\\'), rootLength));
}

QString pathOfObject(const QString& name)
{
    constexpr QLatin1StringView global(R"(\??\)");
    const QString path = name.startsWith(global) ? name.sliced(global.size()) : QString();
    return isDriveRoot(path) ? path : QString();
}

std::optional<QString> linkTarget(const QByteArray& data, const QString& link)
{
    constexpr qsizetype headerSize = 8; // the tag, the length of the rest, nothing
    constexpr qsizetype namesOffset = 16;
    constexpr qsizetype flagsSize = 4; // of a symbolic link, after the four lengths
    if (data.size() < headerSize)
        return std::nullopt;
    const auto tag = qFromLittleEndian<quint32>(data.constData());
    const bool isSymbolic = tag == IO_REPARSE_TAG_SYMLINK;
    if (!isSymbolic && tag != IO_REPARSE_TAG_MOUNT_POINT)
        return IsReparseTagNameSurrogate(tag) ? std::nullopt : std::optional(link);
    const qsizetype names = namesOffset + (isSymbolic ? flagsSize : 0);
    if (data.size() < names)
        return std::nullopt;
    const qsizetype offset = names + numberAt(data, headerSize);
    const qsizetype length = numberAt(data, headerSize + 2);
    if (length % 2 != 0 || offset + length > data.size())
        return std::nullopt;
    QString target(length / 2, Qt::Uninitialized);
    std::copy_n(data.constData() + offset, length, reinterpret_cast<char*>(target.data()));

    const bool isRelative =
        isSymbolic && (numberAt(data, namesOffset) & SYMLINK_FLAG_RELATIVE) != 0;
    if (!isRelative && isVolume(target))
        return link;
    if (!isRelative) {
        const QString path = pathOfObject(target);
        return path.isEmpty() ? std::nullopt : std::optional(path);
    }
    if (target.startsWith(R"(\\)"_L1) || target.contains(u':'))
        return std::nullopt;
    return target.startsWith(u'\\') ? link.first(2) + target : parentPath(link) + u'\\' + target;
}

} // namespace korvane::windows_platform
