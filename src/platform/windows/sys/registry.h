// Keys and values of the registry.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <windows.h>

namespace korvane::windows_platform {

/// A key of the registry, open or not. Values and names come from anybody who may write there: texts are
/// up to 32 Ki characters, and lists end at 16 Ki entries. What is not there, cannot be read or has
/// another type is none.
class RegistryKey
{
public:
    RegistryKey() = default;

    /// Opens the key `path` below `root`; `access` is KEY_READ or KEY_SET_VALUE and the like, with
    /// KEY_WOW64_64KEY or KEY_WOW64_32KEY for a view.
    RegistryKey(HKEY root, const QString& path, REGSAM access = KEY_READ);

    /// The same key, made where it is not there.
    static RegistryKey make(HKEY root, const QString& path, REGSAM access);

    bool isOpen() const { return m_key != nullptr; }

    /// ERROR_SUCCESS, or why it is not open.
    LSTATUS error() const { return m_error; }

    /// A text (REG_SZ, or REG_EXPAND_SZ with its variables as they are); the unnamed value for "".
    std::optional<QString> text(const QString& name) const;

    /// text(), with the variables of a REG_EXPAND_SZ replaced.
    std::optional<QString> expandedText(const QString& name) const;

    std::optional<quint32> number(const QString& name) const;   ///< A REG_DWORD.
    std::optional<QByteArray> bytes(const QString& name) const; ///< A REG_BINARY.

    QStringList valueNames() const;
    QStringList subkeys() const;

    /// All values that are texts: name, and the text as text() has it. Others than valueNames() and
    /// text() it also reads values whose name holds a NUL, by which some programs hide.
    std::vector<std::pair<QString, QString>> texts() const;

    /// Each of these is ERROR_SUCCESS or the error.
    LSTATUS setText(const QString& name, const QString& value) const;
    LSTATUS setBytes(const QString& name, const QByteArray& value) const;
    LSTATUS removeValue(const QString& name) const;

private:
    struct Value
    {
        DWORD type = REG_NONE;
        QByteArray data;
    };
    std::optional<Value> value(const QString& name) const;

    struct Close
    {
        void operator()(HKEY key) const { RegCloseKey(key); }
    };
    std::unique_ptr<HKEY__, Close> m_key;
    LSTATUS m_error = ERROR_FILE_NOT_FOUND;
};

/// `text` with its %variables% replaced by those of this process; as it is where they cannot be.
QString withVariables(const QString& text);

} // namespace korvane::windows_platform
