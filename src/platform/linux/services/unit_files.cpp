// What systemd's unit files say of each other: their [Install] sections, read as systemd does.
#include "platform/linux/services/unit_files.h"

#include "platform/linux/sys/proc_fs.h"
#include "platform/linux/sys/text.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include <sys/stat.h>

namespace korvane::linux_platform {

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype maxSize = 1 << 20; ///< Of all that is read.
constexpr std::size_t maxUnits = 100;
constexpr std::size_t maxDropIns = 1000; ///< Of one unit.

/// What is between the "@" of an instance's or a template's name and its type; none for others.
std::optional<QByteArray> instanceOf(const QByteArray& unitName)
{
    const qsizetype at = unitName.indexOf('@');
    const qsizetype dot = unitName.lastIndexOf('.');
    return at < 0 || dot < at ? std::nullopt : std::optional(unitName.mid(at + 1, dot - at - 1));
}

/// `unitName`, of an instance or a template, as that of the instance `instance`.
QByteArray withInstance(const QByteArray& unitName, const QByteArray& instance)
{
    return unitName.first(unitName.indexOf('@') + 1) + instance +
           unitName.sliced(unitName.lastIndexOf('.'));
}

/// The names under which a unit's files are found: its own, and that of its template.
QByteArrayList fileNamesOf(const QByteArray& unitName)
{
    const auto instance = instanceOf(unitName);
    return instance && !instance->isEmpty() ? QByteArrayList{unitName, withInstance(unitName, {})}
                                            : QByteArrayList{unitName};
}

/// The unit that a file called `fileName` is, when it was found for `unitName`.
QByteArray unitOfFile(const QByteArray& fileName, const QByteArray& unitName)
{
    const auto instance = instanceOf(unitName);
    return instance && instanceOf(fileName) == QByteArray() ? withInstance(fileName, *instance)
                                                            : fileName;
}

/// The last part of a path, or of what the link there holds; empty when it is none.
QByteArray linkTargetName(const QByteArray& path)
{
    std::error_code error;
    return QByteArray::fromStdString(
        std::filesystem::read_symlink(path.constData(), error).filename().string());
}

/// Fills in what stands for parts of the unit's name; none where it stands for something else.
std::optional<QByteArray> expanded(QByteArrayView word, const QByteArray& unitName)
{
    const auto instance = instanceOf(unitName);
    const QByteArray name = unitName.first(unitName.lastIndexOf('.'));
    const QByteArray prefix = name.split('@').constFirst();
    std::map<char, QByteArray> parts{{'%', "%"}, {'n', unitName}, {'N', name}, {'p', prefix}};
    parts['j'] = prefix.split('-').constLast();
    if (instance != QByteArray()) // a template has one only when it is enabled
        parts['i'] = instance.value_or(QByteArray());

    QByteArray text(takeUntil(word, '%').toByteArray());
    while (!word.isEmpty()) {
        const auto part = parts.find(word.front());
        if (part == parts.end())
            return std::nullopt;
        word = word.sliced(1);
        text.append(part->second).append(takeUntil(word, '%'));
    }
    return text;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

QByteArrayView withoutLeadingBlanks(QByteArrayView text)
{
    return text.sliced(std::find_if_not(text.begin(), text.end(), isBlank) - text.begin());
}

QByteArrayView withoutBlanks(QByteArrayView text)
{
    while (!text.isEmpty() && isBlank(text.back()))
        text.chop(1);
    return withoutLeadingBlanks(text);
}

/// Whether a line goes on in the next one: its last backslash is not itself behind one.
bool isContinued(QByteArrayView line)
{
    const auto end = std::find_if(line.rbegin(), line.rend(), [](char c) { return c != '\\'; });
    return (end - line.rbegin()) % 2 == 1;
}

/// What of unit files and drop-ins comes into it, read as systemd reads it.
class InstallSections
{
public:
    void add(QByteArray text);

    QByteArrayList also;
    QByteArrayList aliases;
    bool makeLinks = false;

private:
    void addLine(QByteArrayView line);
    void addAssignment(QByteArrayView key, QByteArrayView value);

    bool m_isInside = false;
};

void InstallSections::add(QByteArray text)
{
    m_isInside = false;
    text.replace("\r\n", "\n").replace('\r', '\n').replace('\0', '\n');
    text.replace("\xef\xbb\xbf", ""); // a byte order mark
    QByteArray logical;               // a line with those that it goes on in
    for (QByteArrayView rest = text; !rest.isEmpty();) {
        const QByteArrayView line = withoutLeadingBlanks(takeUntil(rest, '\n'));
        if (line.startsWith('#') || line.startsWith(';'))
            continue;
        logical.append(line);
        if (isContinued(logical)) {
            logical.back() = ' ';
            continue;
        }
        addLine(withoutBlanks(logical));
        logical.clear();
    }
    addLine(withoutBlanks(logical));
}

void InstallSections::addLine(QByteArrayView line)
{
    if (line.startsWith('[') && line.endsWith(']')) {
        m_isInside = line == "[Install]";
    } else if (m_isInside && line.contains('=')) {
        const QByteArrayView key = withoutBlanks(takeUntil(line, '='));
        addAssignment(key, withoutBlanks(line));
    }
}

/// An empty value takes nothing back from `Also=`; what it takes back from others shows in the state
/// that systemd tells of the unit.
void InstallSections::addAssignment(QByteArrayView key, QByteArrayView value)
{
    constexpr std::array<QByteArrayView, 4> linking{"WantedBy", "RequiredBy", "UpheldBy", "Alias"};
    if (!value.isEmpty() && std::find(linking.begin(), linking.end(), key) != linking.end())
        makeLinks = true;
    if (key != "Also" && key != "Alias")
        return;
    QByteArrayList& words = key == "Also" ? also : aliases;
    for (QByteArrayView word = takeWord(value); !word.isEmpty(); word = takeWord(value)) {
        words.append(word.toByteArray());
        // systemd itself leaves them out of what it reads here.
        if (word.contains('\\'))
            words.append(word.toByteArray().replace('\\', ""));
    }
}

/// Reads unit files and follows them to others.
class UnitWalk
{
public:
    explicit UnitWalk(const QByteArrayList& searchPath) : m_searchPath(searchPath) {}

    EnabledWith from(const QByteArray& unitName);

private:
    /// A unit's file.
    struct FoundFile
    {
        QByteArray path;
        QByteArray unit; ///< That of which it is the file: of a link, another; of a mask, none.
    };

    void failToRead(const QByteArray& path, int error)
    {
        m_found.problem = u"无法读取 %1: %2"_s.arg(textFromSystem(path), qt_error_string(error));
    }

    std::optional<FoundFile> find(const QByteArray& unitName, bool looksBehindMasks);
    void readFile(const QByteArray& path, InstallSections& sections);
    void readDropIns(const QByteArray& unitName, InstallSections& sections);
    QByteArrayList unitsAfter(const QByteArray& unitName, bool isFirst);

    const QByteArrayList& m_searchPath;
    qsizetype m_sizeLeft = maxSize;
    EnabledWith m_found;
};

/// The first file of that name that systemd comes upon.
std::optional<UnitWalk::FoundFile> UnitWalk::find(const QByteArray& unitName, bool looksBehindMasks)
{
    for (const QByteArray& fileName : fileNamesOf(unitName)) {
        for (const QByteArray& folder : m_searchPath) {
            const QByteArray path = folder + '/' + fileName;
            struct stat status = {};
            const int error = ::stat(path.constData(), &status) == 0 ? 0 : errno;
            const bool isMask = !S_ISREG(status.st_mode) || status.st_size == 0;
            if (error == 0 && isMask && !looksBehindMasks)
                return FoundFile{path, {}};
            if (error == 0 && isMask)
                continue;
            // Of links that lead nowhere, only the name counts.
            const QByteArray target = linkTargetName(path);
            const QByteArray unit = target.isEmpty() ? unitName : unitOfFile(target, unitName);
            if (error == 0 || (error == ENOENT && unit != unitName))
                return FoundFile{path, unit};
            if (error != ENOENT && error != ENOTDIR) {
                failToRead(path, error);
                return std::nullopt;
            }
        }
    }
    return std::nullopt;
}

void UnitWalk::readFile(const QByteArray& path, InstallSections& sections)
{
    const auto text = readSystemFile(path.constData(), m_sizeLeft + 1);
    if (!text)
        failToRead(path, errno);
    else if (text->size() > m_sizeLeft)
        failToRead(path, EFBIG);
    else
        sections.add(*text);
    m_sizeLeft -= text ? text->size() : 0;
}

/// Reads a unit's drop-ins; of those of one name the first counts.
void UnitWalk::readDropIns(const QByteArray& unitName, InstallSections& sections)
{
    std::map<QByteArray, QByteArray> paths; // by the files' names
    for (const QByteArray& fileName : fileNamesOf(unitName)) {
        for (const QByteArray& folder : m_searchPath) {
            const QByteArray path = folder + '/' + fileName + ".d";
            std::error_code error;
            std::filesystem::directory_iterator entry(path.constData(), error);
            for (; !error && entry != std::filesystem::directory_iterator();
                 entry.increment(error)) {
                const auto name = QByteArray::fromStdString(entry->path().filename().string());
                if (name.endsWith(".conf") && !name.startsWith('.'))
                    paths.emplace(name, path + '/' + name);
                if (paths.size() > maxDropIns)
                    error.assign(E2BIG, std::generic_category());
            }
            if (error && error.value() != ENOENT && error.value() != ENOTDIR)
                failToRead(path, error.value());
        }
    }
    for (const auto& [name, path] : paths) {
        if (!m_found.problem.isEmpty())
            return;
        struct stat status = {};
        const int error = ::stat(path.constData(), &status) == 0 ? 0 : errno;
        if (error != 0 && error != ENOENT)
            failToRead(path, error);
        else if (error == 0 && S_ISREG(status.st_mode))
            readFile(path, sections);
    }
}

/// The units that come into it with this one, which is counted among those found unless it is the
/// first.
QByteArrayList UnitWalk::unitsAfter(const QByteArray& unitName, bool isFirst)
{
    const auto file = find(unitName, isFirst);
    if (!file || file->unit.isEmpty())
        return {};
    InstallSections sections;
    QByteArrayList units;
    if (file->unit == unitName)
        readFile(file->path, sections);
    else
        units.append(file->unit);
    readDropIns(unitName, sections);
    if (sections.makeLinks && !isFirst)
        m_found.also.append(unitName);
    for (const QByteArray& word : std::as_const(sections.also)) {
        const auto unit = expanded(word, unitName);
        if (!unit)
            m_found.problem = u"%1 的 Also= 中有无法展开的 %2"_s.arg(textFromSystem(unitName),
                                                                     textFromSystem(word));
        else
            units.append(*unit);
    }
    for (const QByteArray& word : isFirst ? sections.aliases : QByteArrayList()) {
        const QByteArray alias = expanded(word, unitName).value_or(QByteArray());
        const auto owner = isUnitName(alias) ? find(alias, false) : std::nullopt;
        if (owner && owner->unit != unitName)
            m_found.replaced.append(alias);
    }
    return units;
}

EnabledWith UnitWalk::from(const QByteArray& unitName)
{
    std::set<QByteArray> seen{unitName};
    QByteArrayList pending{unitName};
    while (!pending.isEmpty() && m_found.problem.isEmpty()) {
        const QByteArray unit = pending.takeFirst();
        for (const QByteArray& next : unitsAfter(unit, unit == unitName)) {
            if (isUnitName(next) && seen.insert(next).second)
                pending.append(next);
        }
        if (seen.size() > maxUnits)
            m_found.problem = u"相关的单元过多"_s;
    }
    return m_found;
}

} // namespace

bool isUnitName(QByteArrayView name)
{
    constexpr qsizetype longest = 255;
    static constexpr QByteArrayView allowed(
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ:-_.\\@");
    return name.size() <= longest && name.lastIndexOf('.') > 0 &&
           std::all_of(name.begin(), name.end(), [](char c) { return allowed.contains(c); });
}

EnabledWith unitsEnabledWith(const QByteArray& unitName, const QByteArrayList& searchPath)
{
    return UnitWalk(searchPath).from(unitName);
}

QByteArray ownerOfLink(const QByteArray& path, const QByteArray& unitName)
{
    const QByteArray name = path.sliced(path.lastIndexOf('/') + 1);
    std::error_code error;
    const auto file = std::filesystem::canonical(path.constData(), error);
    const QByteArray target =
        error ? linkTargetName(path) : QByteArray::fromStdString(file.filename().string());
    return name == unitName || target.isEmpty() ? name : unitOfFile(target, name);
}

} // namespace korvane::linux_platform
