// Installed software, from the keys Uninstall.
#include "platform/software.h"

#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <QSet>
#include <QUuid>

#include <array>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

struct UninstallKey
{
    HKEY root;
    REGSAM view;
};

// In the order of UninstallEntry::source; the user's key is one for both views.
const std::array<UninstallKey, 3> uninstallKeys{{{HKEY_LOCAL_MACHINE, KEY_WOW64_64KEY},
                                                 {HKEY_LOCAL_MACHINE, KEY_WOW64_32KEY},
                                                 {HKEY_CURRENT_USER, KEY_WOW64_64KEY}}};

/// A text as it is shown: one of more than 1024 characters is cut.
QString shown(const RegistryKey& key, const QString& name)
{
    constexpr qsizetype longest = 1024;
    return key.expandedText(name).value_or(QString()).trimmed().left(longest);
}

bool isSet(const RegistryKey& key, const QString& name)
{
    return key.number(name).value_or(0) != 0;
}

/// Whether it is a part of another program, or of the system, which the system's own list hides.
bool isPart(const RegistryKey& key)
{
    const QString kind = shown(key, u"ReleaseType"_s);
    const bool isUpdate = kind.contains("update"_L1, Qt::CaseInsensitive) ||
                          kind.compare("hotfix"_L1, Qt::CaseInsensitive) == 0 ||
                          kind.compare("service pack"_L1, Qt::CaseInsensitive) == 0 ||
                          kind.compare("servicepack"_L1, Qt::CaseInsensitive) == 0;
    return isUpdate || isSet(key, u"SystemComponent"_s) ||
           !shown(key, u"ParentKeyName"_s).isEmpty() ||
           !shown(key, u"ParentDisplayName"_s).isEmpty();
}

/// Never cut: another command than the whole one must not be run.
QString uninstallCommand(const RegistryKey& key, const QString& identifier)
{
    const QString command = key.expandedText(u"UninstallString"_s).value_or(QString()).trimmed();
    const bool isPackage = isSet(key, u"WindowsInstaller"_s) && !QUuid(identifier).isNull();
    return command.isEmpty() && isPackage ? u"MsiExec.exe /X"_s + identifier : command;
}

UninstallEntry entryOf(const RegistryKey& key, quint32 source, const QString& identifier)
{
    return {source,
            identifier,
            shown(key, u"DisplayName"_s),
            shown(key, u"DisplayVersion"_s),
            shown(key, u"Publisher"_s),
            shown(key, u"InstallLocation"_s),
            uninstallCommand(key, identifier),
            qint64{key.number(u"EstimatedSize"_s).value_or(0)}};
}

/// What two entries share that both stand for one program.
QStringList identityOf(const UninstallEntry& entry)
{
    return {entry.identifier.toLower(), entry.displayName, entry.displayVersion,
            entry.installLocation.toLower(), entry.uninstallString.toLower()};
}

} // namespace

} // namespace windows_platform

QList<UninstallEntry> platform::listSoftware(QString* error)
{
    using namespace windows_platform;
    const QString path = uR"(Software\Microsoft\Windows\CurrentVersion\Uninstall)"_s;
    QList<UninstallEntry> entries;
    QSet<QStringList> listed;
    QString failure;
    for (quint32 source = 0; source < uninstallKeys.size(); ++source) {
        const UninstallKey& place = uninstallKeys.at(source);
        const RegistryKey all(place.root, path, KEY_READ | place.view);
        if (!all.isOpen() && all.error() != ERROR_FILE_NOT_FOUND)
            failure = errorText(static_cast<DWORD>(all.error()));
        for (const QString& name : all.subkeys()) {
            const RegistryKey key(place.root, path + u'\\' + name, KEY_READ | place.view);
            const UninstallEntry entry = entryOf(key, source, name);
            const QStringList identity = identityOf(entry);
            if (entry.displayName.isEmpty() || isPart(key) || listed.contains(identity))
                continue;
            listed.insert(identity);
            entries.append(entry);
        }
    }
    if (error != nullptr && entries.isEmpty() && !failure.isEmpty())
        *error = u"无法读取已安装软件: "_s + failure;
    return entries;
}

} // namespace korvane
