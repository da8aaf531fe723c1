// Extensions of the desktop's file manager: those that are approved, each with its class as the command
// and its server as the executable.
#include "platform/startup.h"

#include "platform/windows/sys/command_line.h"
#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <QSet>
#include <QUuid>

#include <array>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

struct ExtensionKey
{
    StartupSource source;
    HKEY root;
    REGSAM view;
};

// The user's key is one for both views.
const std::array<ExtensionKey, 3> extensionKeys{
    {{StartupSource::hklm, HKEY_LOCAL_MACHINE, KEY_WOW64_64KEY},
     {StartupSource::hklm, HKEY_LOCAL_MACHINE, KEY_WOW64_32KEY},
     {StartupSource::hkcu, HKEY_CURRENT_USER, KEY_WOW64_64KEY}}};

RegistryKey extensions(const ExtensionKey& key, const QString& list)
{
    const QString path = uR"(Software\Microsoft\Windows\CurrentVersion\Shell Extensions\)"_s;
    return {key.root, path + list, KEY_READ | key.view};
}

/// The classes that are blocked for this view, or for the user.
QSet<QUuid> blockedFor(const ExtensionKey& key)
{
    QSet<QUuid> blocked;
    for (const ExtensionKey& place : {key, extensionKeys.back()}) {
        for (const QString& name : extensions(place, u"Blocked"_s).valueNames())
            blocked.insert(QUuid(name));
    }
    return blocked;
}

StartupItem itemOf(const ExtensionKey& key, const QUuid& id, const QString& description)
{
    const QString classId = id.toString().toUpper();
    const QString path = uR"(CLSID\)"_s + classId;
    const REGSAM access = KEY_READ | key.view;
    const RegistryKey server(HKEY_CLASSES_ROOT, path + uR"(\InprocServer32)"_s, access);
    QString name = description.trimmed();
    if (name.isEmpty())
        name = RegistryKey(HKEY_CLASSES_ROOT, path, access).text(QString()).value_or(classId);
    return {key.source,
            StartupCategory::ShellExtension,
            name,
            classId,
            programPath(server.expandedText(QString()).value_or(QString())),
            true};
}

} // namespace

} // namespace windows_platform

QList<StartupItem> platform::listShellExtensions(QString* error)
{
    using namespace windows_platform;
    QList<StartupItem> items;
    QSet<std::pair<QUuid, QString>> listed;
    QString failure;
    for (const ExtensionKey& key : extensionKeys) {
        const RegistryKey approved = extensions(key, u"Approved"_s);
        if (!approved.isOpen() && approved.error() != ERROR_FILE_NOT_FOUND)
            failure = errorText(static_cast<DWORD>(approved.error()));
        const QSet<QUuid> blocked = blockedFor(key);
        for (const auto& [text, description] : approved.texts()) {
            const QUuid id(text);
            if (id.isNull())
                continue;
            StartupItem item = itemOf(key, id, description);
            item.enabled = !blocked.contains(id);
            const std::pair identity(id, item.exePath);
            if (listed.contains(identity))
                continue;
            listed.insert(identity);
            items.append(item);
        }
    }
    if (error != nullptr && items.isEmpty() && !failure.isEmpty())
        *error = u"无法读取 Shell 扩展: "_s + failure;
    return items;
}

} // namespace korvane
