// The user's own Run key.
#include "platform/session.h"

#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <QCoreApplication>
#include <QDir>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

using namespace windows_platform;

const QString runKey = uR"(Software\Microsoft\Windows\CurrentVersion\Run)"_s;
/// Where the system keeps what the person has switched off.
const QString approvedKey =
    uR"(Software\Microsoft\Windows\CurrentVersion\Explorer\StartupApproved\Run)"_s;

bool isSwitchedOff(const QString& name)
{
    const auto state = RegistryKey(HKEY_CURRENT_USER, approvedKey).bytes(name);
    return state && !state->isEmpty() && (state->at(0) & 1) != 0;
}

OpResult resultOf(LSTATUS error)
{
    const bool ok = error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND;
    return {ok, ok ? QString() : errorText(static_cast<DWORD>(error))};
}

/// What is not there counts as removed.
OpResult remove(const QString& path, const QString& name)
{
    const RegistryKey key(HKEY_CURRENT_USER, path, KEY_SET_VALUE);
    return resultOf(key.isOpen() ? key.removeValue(name) : key.error());
}

} // namespace

bool platform::startsWithSession()
{
    const QString name = QCoreApplication::applicationName();
    return RegistryKey(HKEY_CURRENT_USER, runKey).text(name) && !isSwitchedOff(name);
}

OpResult platform::setStartsWithSession(bool starts)
{
    constexpr qsizetype longestCommand = 260; // The system does not run a longer one.
    const QString name = QCoreApplication::applicationName();
    if (!starts)
        return remove(runKey, name);
    const QString command = u"\"%1\" --background"_s.arg(
        QDir::toNativeSeparators(QCoreApplication::applicationFilePath()));
    if (command.size() > longestCommand)
        return {false, u"程序的路径过长, 系统不会启动它。"_s};
    const RegistryKey key = RegistryKey::make(HKEY_CURRENT_USER, runKey, KEY_SET_VALUE);
    OpResult written = resultOf(key.isOpen() ? key.setText(name, command) : key.error());
    return written.ok ? remove(approvedKey, name) : written;
}

} // namespace korvane
