// The Run keys, and the switches that the task manager keeps for them.
#include "platform/startup.h"

#include "platform/windows/sys/command_line.h"
#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <array>
#include <cstring>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

struct RunKey
{
    StartupSource source;
    HKEY root;
    REGSAM view;
    QLatin1StringView approved; ///< The name of its key of switches, which are in the 64-bit view.
};

// The user's key is one for both views.
const std::array<RunKey, 3> runKeys{
    {{StartupSource::hklm, HKEY_LOCAL_MACHINE, KEY_WOW64_64KEY, "Run"_L1},
     {StartupSource::hklm, HKEY_LOCAL_MACHINE, KEY_WOW64_32KEY, "Run32"_L1},
     {StartupSource::hkcu, HKEY_CURRENT_USER, KEY_WOW64_64KEY, "Run"_L1}}};

RegistryKey runKey(const RunKey& key)
{
    const QString path = uR"(Software\Microsoft\Windows\CurrentVersion\Run)"_s;
    return {key.root, path, KEY_READ | key.view};
}

QString switchesPath(const RunKey& key)
{
    return uR"(Software\Microsoft\Windows\CurrentVersion\Explorer\StartupApproved\)"_s +
           key.approved;
}

/// Whether the value of a switch lets its item run; none does.
bool isOn(const std::optional<QByteArray>& bytes)
{
    return !bytes || bytes->isEmpty() || (bytes->front() & 1) == 0;
}

QByteArray switchValue(bool enabled)
{
    constexpr qsizetype size = 12; // A state, and the time when it was switched off.
    constexpr qsizetype timeOffset = 4;
    QByteArray bytes(size, '\0');
    bytes[0] = enabled ? '\x02' : '\x03';
    if (!enabled) {
        FILETIME now{};
        GetSystemTimeAsFileTime(&now);
        std::memcpy(bytes.data() + timeOffset, &now, sizeof now);
    }
    return bytes;
}

/// The key in which the item is, as the listing has it first; null where none has it.
const RunKey* keyOf(StartupSource source, const QString& name)
{
    for (const RunKey& key : runKeys) {
        if (key.source != source)
            continue;
        for (const auto& [found, command] : runKey(key).texts()) {
            if (found == name)
                return &key;
        }
    }
    return nullptr;
}

} // namespace

} // namespace windows_platform

QList<StartupItem> platform::listRunItems(QString* error)
{
    using namespace windows_platform;
    QList<StartupItem> items;
    QString failure;
    for (const RunKey& key : runKeys) {
        const RegistryKey run = runKey(key);
        if (!run.isOpen() && run.error() != ERROR_FILE_NOT_FOUND)
            failure = errorText(static_cast<DWORD>(run.error()));
        const RegistryKey switches(key.root, switchesPath(key), KEY_READ | KEY_WOW64_64KEY);
        for (const auto& [name, command] : run.texts()) {
            items.append({key.source, StartupCategory::RegistryRun, name, command,
                          splitCommand(command).executable, isOn(switches.bytes(name))});
        }
    }
    if (error != nullptr && items.isEmpty() && !failure.isEmpty())
        *error = u"无法读取启动项: "_s + failure;
    return items;
}

OpResult platform::setRunItemEnabled(StartupSource source, const QString& name, bool enabled)
{
    using namespace windows_platform;
    const RunKey* key = keyOf(source, name);
    if (key == nullptr)
        return {false, u"找不到启动项「%1」"_s.arg(name)};
    if (name.contains(QChar::Null))
        return {false, u"启动项「%1」的名称含有空字符, 无法启用或禁用"_s.arg(name)};
    const auto switches =
        RegistryKey::make(key->root, switchesPath(*key), KEY_SET_VALUE | KEY_WOW64_64KEY);
    const LSTATUS result =
        switches.isOpen() ? switches.setBytes(name, switchValue(enabled)) : switches.error();
    if (result == ERROR_ACCESS_DENIED && source == StartupSource::hklm)
        return {false, u"更改系统启动项「%1」需要管理员权限"_s.arg(name)};
    const auto code = static_cast<DWORD>(result);
    const QString verb = enabled ? u"启用"_s : u"禁用"_s;
    if (result != ERROR_SUCCESS)
        return {false, u"无法%1启动项「%2」: %3"_s.arg(verb, name, errorText(code))};
    return {true, u"已%1启动项「%2」"_s.arg(verb, name)};
}

} // namespace korvane
