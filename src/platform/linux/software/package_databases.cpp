// Parsers of dpkg's status file and of the output of rpm, flatpak and snap.
#include "platform/linux/software/package_databases.h"

#include "platform/linux/sys/text.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace korvane::linux_platform {

using namespace Qt::StringLiterals;

namespace {

/// A field as it is shown: one of more than 1024 bytes is cut.
QString shown(QByteArrayView field)
{
    return textFromSystem(field.first(std::min<qsizetype>(field.size(), 1024)));
}

/// Whether `name`, of at most 255 bytes, is a letter or digit followed by those and `others`.
bool isPlainName(QByteArrayView name, QByteArrayView others)
{
    const auto isLetterOrDigit = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    return !name.isEmpty() && name.size() <= 255 && isLetterOrDigit(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [&](char c) { return isLetterOrDigit(c) || others.contains(c); });
}

/// UninstallEntry::source of what is there for all users, by the processor's name in dpkg, rpm or
/// flatpak.
quint32 machineWideSource(QByteArrayView architecture)
{
    static constexpr std::array<QByteArrayView, 14> others{
        "x32", "athlon", "geode", "pentium3", "pentium4", "powerpc", "powerpcspe",
        "ppc", "hppa",   "m68k",  "sh4",      "s390",     "sparc",   "riscv32"};
    // dpkg may put the kernel or the C library first, as in hurd-i386.
    const QByteArrayView cpu = architecture.sliced(architecture.lastIndexOf('-') + 1);
    const bool isArmOrMips = cpu.startsWith("arm") || cpu.startsWith("mips");
    const bool is32Bit = (isArmOrMips && !cpu.contains("64")) ||
                         (cpu.size() == 4 && cpu[0] == 'i' && cpu.endsWith("86")) ||
                         std::find(others.begin(), others.end(), cpu) != others.end();
    return is32Bit ? 1 : 0;
}

/// The number that `text` is; 0, which stands for unknown, when it is none or negative.
qint64 sizeFrom(QByteArrayView text)
{
    qint64 size = 0;
    parseNumber(text, size);
    return std::max<qint64>(size, 0);
}

/// One paragraph of dpkg's database; views the text that it was parsed from.
struct DpkgStanza
{
    QByteArrayView package;
    QByteArrayView status;
    QByteArrayView version;
    QByteArrayView architecture;
    QByteArrayView maintainer;
    QByteArrayView installedSize; ///< KiB
    QByteArrayView multiArch;

    /// The last of the three words of the status.
    QByteArrayView state() const
    {
        QByteArrayView rest = status;
        takeWord(rest);
        takeWord(rest);
        return takeWord(rest);
    }

    /// Whether files of the package may be on the disk.
    bool isOnDisk() const
    {
        static constexpr std::array<QByteArrayView, 6> states{
            "installed",       "triggers-awaited", "triggers-pending",
            "half-configured", "unpacked",         "half-installed"};
        return std::find(states.begin(), states.end(), state()) != states.end();
    }
};

struct DpkgField
{
    QByteArrayView name;
    QByteArrayView DpkgStanza::*value;
};

void readDpkgField(QByteArrayView line, DpkgStanza& stanza)
{
    static constexpr std::array<DpkgField, 7> fields{
        {{"Package", &DpkgStanza::package},
         {"Status", &DpkgStanza::status},
         {"Version", &DpkgStanza::version},
         {"Architecture", &DpkgStanza::architecture},
         {"Maintainer", &DpkgStanza::maintainer},
         {"Installed-Size", &DpkgStanza::installedSize},
         {"Multi-Arch", &DpkgStanza::multiArch}}};
    const QByteArrayView name = takeUntil(line, ':').trimmed();
    for (const DpkgField& field : fields) {
        if (name.size() == field.name.size() && name.compare(field.name, Qt::CaseInsensitive) == 0)
            stanza.*field.value = line.trimmed();
    }
}

QList<DpkgStanza> parseStanzas(QByteArrayView text)
{
    QList<DpkgStanza> stanzas;
    DpkgStanza stanza;
    while (!text.isEmpty()) {
        const QByteArrayView line = takeUntil(text, '\n');
        if (!line.isEmpty() && line[0] != ' ' && line[0] != '\t')
            readDpkgField(line, stanza);
        if (!line.isEmpty() && !text.isEmpty())
            continue;
        if (!stanza.package.isEmpty())
            stanzas.append(stanza);
        stanza = {};
    }
    return stanzas;
}

/// Puts a journalled change where dpkg will: in the place of the same architecture, or of the only
/// instance of the package, which may change its architecture unless both can be there together.
void applyUpdate(QList<DpkgStanza>& stanzas, const DpkgStanza& update)
{
    DpkgStanza* replaced = nullptr;
    QList<DpkgStanza*> instances;
    for (DpkgStanza& stanza : stanzas) {
        if (stanza.package != update.package)
            continue;
        if (stanza.architecture == update.architecture)
            replaced = &stanza;
        if (stanza.state() != "not-installed")
            instances.append(&stanza);
    }
    if (instances.size() == 1 && (instances[0]->multiArch != "same" || update.multiArch != "same"))
        replaced = instances[0];
    if (replaced != nullptr)
        *replaced = update;
    else
        stanzas.append(update);
}

QString dpkgCommand(const DpkgStanza& stanza, QByteArrayView machine)
{
    const QByteArrayView architecture = stanza.architecture;
    const bool isOwn = architecture == machine || architecture == "all";
    const bool isLower = stanza.package == stanza.package.toByteArray().toLower();
    if (!isLower || !isPlainName(stanza.package, "+-.") ||
        !(isOwn || isPlainName(architecture, "-")))
        return {};
    const QString command = u"apt-get remove "_s + QLatin1String(stanza.package);
    return isOwn ? command : command + u':' + QLatin1String(architecture);
}

} // namespace

QList<UninstallEntry> parseDpkgDatabase(QByteArrayView status, const QByteArrayList& journal)
{
    QList<DpkgStanza> stanzas = parseStanzas(status);
    for (const QByteArray& file : journal) {
        for (const DpkgStanza& update : parseStanzas(file))
            applyUpdate(stanzas, update);
    }
    stanzas.removeIf([](const DpkgStanza& stanza) { return !stanza.isOnDisk(); });
    QByteArrayView machine; // dpkg is of the machine's own architecture
    for (const DpkgStanza& stanza : stanzas) {
        if (stanza.package == "dpkg")
            machine = stanza.architecture;
    }
    QList<UninstallEntry> entries;
    entries.reserve(stanzas.size());
    for (const DpkgStanza& stanza : stanzas) {
        const QString name = shown(stanza.package);
        entries.append({machineWideSource(stanza.architecture),
                        name + u':' + shown(stanza.architecture),
                        name,
                        shown(stanza.version),
                        shown(stanza.maintainer),
                        {},
                        dpkgCommand(stanza, machine),
                        sizeFrom(stanza.installedSize)});
    }
    return entries;
}

QString rpmQueryFormat()
{
    // Ends of fields and records are control bytes: no ordinary text can pose as one.
    return u"%{NAME}\x1f%{NVRA}\x1f%{EVR}\x1f%{ARCH}\x1f%{LONGSIZE}\x1f"
           "%|VENDOR?{%{VENDOR}}:{%|PACKAGER?{%{PACKAGER}}|}|\x1e"_s;
}

QList<UninstallEntry> parseRpmPackages(QByteArrayView output)
{
    QList<UninstallEntry> entries;
    while (!output.isEmpty()) {
        QByteArrayView record = takeUntil(output, '\x1e');
        if (std::count(record.begin(), record.end(), '\x1f') != 5)
            continue;
        const QByteArrayView name = takeUntil(record, '\x1f');
        const QByteArrayView key = takeUntil(record, '\x1f');
        const QByteArrayView version = takeUntil(record, '\x1f');
        const QByteArrayView architecture = takeUntil(record, '\x1f');
        const qint64 bytes = sizeFrom(takeUntil(record, '\x1f'));
        // A key that rpm trusts is kept as a package of this name.
        if (name.isEmpty() || name == "gpg-pubkey")
            continue;
        const QString command = u"rpm -e "_s + shown(key);
        entries.append({machineWideSource(architecture),
                        shown(key),
                        shown(name),
                        shown(version),
                        shown(record),
                        {},
                        isPlainName(key, "._+~^-") ? command : QString(),
                        bytes / 1024 + (bytes % 1024 == 0 ? 0 : 1)});
    }
    return entries;
}

namespace {

/// KiB from a size as in "1.5 MB", with an ordinary or a no-break space; 0 when it is none.
qint64 kibFromSizeText(QByteArrayView text)
{
    static constexpr std::array<QByteArrayView, 5> units{"bytes", "kB", "MB", "GB", "TB"};
    const QByteArray plain = text.toByteArray().replace("\u00a0", " ");
    QByteArrayView rest = plain;
    const double number = takeWord(rest).toByteArray().toDouble(); // 0 for what is no number
    const auto unit = std::find(units.begin(), units.end(), takeWord(rest));
    // The next unit begins at 1000.
    if (unit == units.end() || !(number >= 0 && number <= 1000))
        return 0;
    const double bytes = number * std::pow(1000.0, std::distance(units.begin(), unit));
    return static_cast<qint64>(std::ceil(bytes / 1024));
}

} // namespace

QString flatpakColumns()
{
    // What an application's author words comes last: it may hold tabs and line feeds.
    return u"ref,origin,size,options,version,name"_s;
}

QList<UninstallEntry> parseFlatpakList(QByteArrayView output, bool perUser)
{
    QList<UninstallEntry> entries;
    while (!output.isEmpty()) {
        QByteArrayView line = takeUntil(output, '\n');
        if (std::count(line.begin(), line.end(), '\t') < 5)
            continue;
        const QByteArrayView ref = takeUntil(line, '\t');
        const QByteArrayView origin = takeUntil(line, '\t');
        const QByteArrayView size = takeUntil(line, '\t');
        const bool isRuntime = takeUntil(line, '\t').contains("runtime");
        const QByteArrayView version = takeUntil(line, '\t');
        QByteArrayView branch = ref;
        const QByteArrayView id = takeUntil(branch, '/');
        const QByteArrayView architecture = takeUntil(branch, '/');
        QString key;
        if (isPlainName(id, "._-") && isPlainName(architecture, "_") && isPlainName(branch, "._-+"))
            key = (isRuntime ? u"runtime/"_s : u"app/"_s) + shown(ref);
        const QString command = perUser ? u"flatpak uninstall --user "_s : u"flatpak uninstall "_s;
        entries.append({perUser ? 2 : machineWideSource(architecture),
                        key,
                        shown(line.trimmed().isEmpty() ? id : line.trimmed()),
                        shown(version.isEmpty() ? branch : version),
                        shown(origin),
                        {},
                        key.isEmpty() ? QString() : command + key,
                        kibFromSizeText(size)});
    }
    return entries;
}

std::optional<QList<UninstallEntry>> parseSnapList(QByteArrayView output)
{
    QList<UninstallEntry> entries;
    if (output.isEmpty()) // it says on standard error that there are none
        return entries;
    const auto takeRow = [&output] {
        return shown(takeUntil(output, '\n')).split(u' ', Qt::SkipEmptyParts);
    };
    const QStringList header = takeRow();
    if (header.value(0) != u"Name" || !header.contains(u"Rev"_s))
        return std::nullopt;
    while (!output.isEmpty()) {
        QStringList row = takeRow();
        for (; row.size() > header.size(); row.removeAt(2))
            row[1] += u' ' + row[2]; // only a version, the second column, may hold blanks
        if (row.size() < header.size())
            continue;
        // A dash stands for nothing.
        const auto cell = [&](const QString& heading) {
            const QString text = row.value(header.indexOf(heading));
            return text == u'-' ? QString() : text;
        };
        const QString name = cell(u"Name"_s);
        QString publisher = cell(u"Publisher"_s);
        while (publisher.endsWith(u'*')) // the mark of one that the store has verified
            publisher.chop(1);
        QString key = name + u'_' + cell(u"Rev"_s);
        if (!isPlainName(key.toUtf8(), "-_"))
            key.clear();
        const QString command = u"snap remove "_s + name;
        entries.append({0,
                        key,
                        name,
                        cell(u"Version"_s),
                        publisher,
                        {},
                        key.isEmpty() ? QString() : command,
                        0});
    }
    return entries;
}

} // namespace korvane::linux_platform
