// The rules of CreateProcess, without starting anything.
#include "platform/windows/sys/command_line.h"

#include "platform/paths.h"
#include "platform/windows/sys/file_path.h"
#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/text.h"

#include <algorithm>
#include <array>

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

/// The system's own directories, in the order in which they are searched.
QStringList systemDirectories()
{
    std::array<wchar_t, MAX_PATH> buffer{};
    QStringList directories;
    for (const auto call : {&GetSystemDirectoryW, &GetSystemWindowsDirectoryW}) {
        const UINT length = call(buffer.data(), buffer.size());
        if (length > 0 && length < buffer.size())
            directories += fromWide({buffer.data(), length});
    }
    return directories;
}

bool isBlank(QChar character)
{
    return character == u' ' || character == u'\t';
}

bool hasDirectory(const QString& path)
{
    return path.contains(u'\\') || path.contains(u'/') || path.contains(u':');
}

QString withExtension(const QString& path)
{
    const qsizetype name = path.lastIndexOf(u'\\') + 1;
    return path.indexOf(u'.', name) < 0 ? path + u".exe"_s : path;
}

/// The file that `program` stands for; empty where there is none.
QString foundFile(const QString& program)
{
    const QString name = withExtension(displayPath(program));
    if (hasDirectory(name))
        return isLocalFile(name) ? name : QString();
    for (const QString& directory : systemDirectories()) {
        QString path = directory + u'\\' + name;
        if (isLocalFile(path))
            return path;
    }
    return {};
}

/// Where the program's name ends in an unquoted command, of which no file was found.
qsizetype likelyEnd(const QString& command)
{
    constexpr auto extension = ".exe"_L1;
    const qsizetype dot = command.indexOf(extension, 0, Qt::CaseInsensitive);
    const qsizetype end = dot + extension.size();
    if (dot > 0 && (end == command.size() || isBlank(command[end])))
        return end;
    return std::distance(command.begin(), std::find_if(command.begin(), command.end(), isBlank));
}

Command splitUnquoted(const QString& command)
{
    constexpr int maxTries = 32;
    qsizetype end = 0;
    for (int i = 0; i < maxTries && end < command.size(); ++i) {
        const auto next = std::find_if(command.begin() + end + 1, command.end(), isBlank);
        end = std::distance(command.begin(), next);
        const QString found = foundFile(command.left(end).trimmed());
        if (!found.isEmpty())
            return {found, command.mid(end).trimmed()};
    }
    end = likelyEnd(command);
    return {command.left(end), command.mid(end).trimmed()};
}

} // namespace

bool isLocalFile(const QString& path)
{
    if (!isOnDrive(path))
        return false;
    if (!platform::isLocalPath(
            path)) // The server of a mapped drive may be dead: asking takes long.
        return false;
    const QString extended = extendedPath(displayPath(path));
    const DWORD attributes = GetFileAttributesW(wide(extended));
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

Command splitCommand(const QString& line)
{
    const QString command = withVariables(line).trimmed();
    if (!command.startsWith(u'"'))
        return splitUnquoted(command);
    const qsizetype closing = command.indexOf(u'"', 1);
    const QString quoted = command.mid(1, closing < 0 ? -1 : closing - 1).trimmed();
    return {programPath(quoted), closing < 0 ? QString() : command.mid(closing + 1).trimmed()};
}

QString programPath(const QString& registered)
{
    QString program = withVariables(registered).trimmed();
    if (program.size() > 1 && program.startsWith(u'"') && program.endsWith(u'"'))
        program = program.mid(1, program.size() - 2).trimmed();
    const QString found = foundFile(program);
    return found.isEmpty() ? program : found;
}

} // namespace korvane::windows_platform
