// The registry's calls, within limits.
#include "platform/windows/sys/registry.h"

#include "platform/windows/sys/text.h"

#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace korvane::windows_platform {

namespace {

constexpr DWORD maxEntries = 16 * 1024;
constexpr DWORD maxValueBytes = 64 * 1024;
constexpr std::size_t maxNameLength = std::size_t{16} * 1024; // Of a value, without its end.

/// The characters of a text value, which may lack its end, or have an odd number of bytes.
QString textOf(const QByteArray& data)
{
    std::wstring text(static_cast<std::size_t>(data.size()) / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data.constData(), text.size() * sizeof(wchar_t));
    return fromBuffer(text);
}

/// The names that `enumerate(index, buffer, size)` gives, until it fails.
template <typename Enumerate> QStringList names(Enumerate enumerate)
{
    std::wstring name(maxNameLength, L'\0');
    QStringList all;
    for (DWORD i = 0; i < maxEntries; ++i) {
        auto size = static_cast<DWORD>(name.size());
        if (enumerate(i, name.data(), &size) != ERROR_SUCCESS)
            break;
        all += fromWide({name.data(), size});
    }
    return all;
}

} // namespace

RegistryKey::RegistryKey(HKEY root, const QString& path, REGSAM access)
{
    HKEY key = nullptr;
    m_error = RegOpenKeyExW(root, wide(path), 0, access, &key);
    m_key.reset(key);
}

RegistryKey RegistryKey::make(HKEY root, const QString& path, REGSAM access)
{
    HKEY key = nullptr;
    RegistryKey made;
    made.m_error = RegCreateKeyExW(root, wide(path), 0, nullptr, REG_OPTION_NON_VOLATILE, access,
                                   nullptr, &key, nullptr);
    made.m_key.reset(key);
    return made;
}

std::optional<RegistryKey::Value> RegistryKey::value(const QString& name) const
{
    Value value;
    DWORD size = 1024;
    LSTATUS result = ERROR_MORE_DATA;
    while (isOpen() && result == ERROR_MORE_DATA && size <= maxValueBytes) {
        value.data.resize(static_cast<qsizetype>(size));
        DWORD written = size;
        result = RegQueryValueExW(m_key.get(), wide(name), nullptr, &value.type,
                                  reinterpret_cast<BYTE*>(value.data.data()), &written);
        if (result == ERROR_SUCCESS)
            value.data.truncate(static_cast<qsizetype>(written));
        size *= 2; // It may grow meanwhile: the size that the system asks for is no promise.
    }
    return result == ERROR_SUCCESS ? std::optional(std::move(value)) : std::nullopt;
}

std::optional<QString> RegistryKey::text(const QString& name) const
{
    const auto found = value(name);
    if (!found || (found->type != REG_SZ && found->type != REG_EXPAND_SZ))
        return std::nullopt;
    return textOf(found->data);
}

std::optional<QString> RegistryKey::expandedText(const QString& name) const
{
    const auto found = value(name);
    if (!found || (found->type != REG_SZ && found->type != REG_EXPAND_SZ))
        return std::nullopt;
    const QString plain = textOf(found->data);
    return found->type == REG_EXPAND_SZ ? withVariables(plain) : plain;
}

std::optional<quint32> RegistryKey::number(const QString& name) const
{
    const auto found = value(name);
    quint32 number = 0;
    if (!found || found->type != REG_DWORD || found->data.size() != sizeof number)
        return std::nullopt;
    std::memcpy(&number, found->data.constData(), sizeof number);
    return number;
}

std::optional<QByteArray> RegistryKey::bytes(const QString& name) const
{
    const auto found = value(name);
    return found && found->type == REG_BINARY ? std::optional(found->data) : std::nullopt;
}

QStringList RegistryKey::valueNames() const
{
    return names([this](DWORD index, wchar_t* name, DWORD* size) {
        return RegEnumValueW(m_key.get(), index, name, size, nullptr, nullptr, nullptr, nullptr);
    });
}

QStringList RegistryKey::subkeys() const
{
    return names([this](DWORD index, wchar_t* name, DWORD* size) {
        return RegEnumKeyExW(m_key.get(), index, name, size, nullptr, nullptr, nullptr, nullptr);
    });
}

std::vector<std::pair<QString, QString>> RegistryKey::texts() const
{
    constexpr qsizetype longestInAll = qsizetype{16} * 1024 * 1024;
    std::wstring name(maxNameLength, L'\0');
    QByteArray data(maxValueBytes, Qt::Uninitialized);
    std::vector<std::pair<QString, QString>> texts;
    qsizetype inAll = 0;
    for (DWORD i = 0; i < maxEntries && inAll < longestInAll; ++i) {
        auto length = static_cast<DWORD>(name.size());
        DWORD type = REG_NONE;
        DWORD size = maxValueBytes;
        const LSTATUS result = RegEnumValueW(m_key.get(), i, name.data(), &length, nullptr, &type,
                                             reinterpret_cast<BYTE*>(data.data()), &size);
        if (result == ERROR_MORE_DATA)
            continue;
        if (result != ERROR_SUCCESS)
            break;
        if (type != REG_SZ && type != REG_EXPAND_SZ)
            continue;
        texts.emplace_back(fromWide({name.data(), length}), textOf(data.first(qsizetype{size})));
        inAll += length + texts.back().second.size();
    }
    return texts;
}

LSTATUS RegistryKey::setText(const QString& name, const QString& value) const
{
    const auto bytes = static_cast<DWORD>((value.size() + 1) * qsizetype{sizeof(wchar_t)});
    return RegSetValueExW(m_key.get(), wide(name), 0, REG_SZ,
                          reinterpret_cast<const BYTE*>(value.utf16()), bytes);
}

LSTATUS RegistryKey::setBytes(const QString& name, const QByteArray& value) const
{
    return RegSetValueExW(m_key.get(), wide(name), 0, REG_BINARY,
                          reinterpret_cast<const BYTE*>(value.constData()),
                          static_cast<DWORD>(value.size()));
}

LSTATUS RegistryKey::removeValue(const QString& name) const
{
    return RegDeleteValueW(m_key.get(), wide(name));
}

QString withVariables(const QString& text)
{
    constexpr std::size_t longest = std::size_t{32} * 1024;
    std::wstring expanded(longest, L'\0');
    const DWORD size = ExpandEnvironmentStringsW(wide(text), expanded.data(), longest);
    return size == 0 || size > longest ? text : fromBuffer(expanded);
}

} // namespace korvane::windows_platform
