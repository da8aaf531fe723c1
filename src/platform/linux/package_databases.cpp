// Parsers of dpkg's status file and of the output of rpm, flatpak and snap.
#include "platform/linux/package_databases.h"

#include "platform/linux/text.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace korvane::linux_platform {

namespace {

/// Places of UninstallEntry::source.
constexpr quint32 machineWide = 0;
constexpr quint32 machineWide32Bit = 1;
constexpr quint32 perUserSource = 2;

/// Longest field that is shown; a longer one is cut.
constexpr qsizetype shownLimit = 1024;
/// Longest name that a command is made of.
constexpr qsizetype nameLimit = 255;

QString shown(QByteArrayView field)
{
    return textFromSystem(field.first(std::min(field.size(), shownLimit)));
}

/// Whether `name` begins with a letter or digit and goes on with those and `others`.
bool isPlainName(QByteArrayView name, QByteArrayView others)
{
    const auto isLetterOrDigit = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    return !name.isEmpty() && name.size() <= nameLimit && isLetterOrDigit(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [&](char c) { return isLetterOrDigit(c) || others.contains(c); });
}

/// Whether programs of `architecture` are 32-bit, by the names of dpkg, rpm and flatpak.
bool is32Bit(QByteArrayView architecture)
{
    static constexpr std::array<QByteArrayView, 21> others{
        "x32",   "athlon", "geode", "pentium3", "pentium4", "powerpc", "powerpcspe",
        "ppc",   "hppa",   "m68k",  "sh3",      "sh4",      "s390",    "sparc",
        "nios2", "or1k",   "arc",   "csky",     "riscv32",  "loong32", "sparcv9"};
    // dpkg puts the kernel or the C library before the processor, as in hurd-i386.
    const QByteArrayView cpu = architecture.sliced(architecture.lastIndexOf('-') + 1);
    if (cpu.size() == 4 && cpu[0] == 'i' && cpu.endsWith(QByteArrayView("86")))
        return true;
    if (cpu.startsWith("arm") || cpu.startsWith("mips"))
        return cpu.indexOf(QByteArrayView("64")) < 0;
    return std::find(others.begin(), others.end(), cpu) != others.end();
}

quint32 systemSource(QByteArrayView architecture)
{
    return is32Bit(architecture) ? machineWide32Bit : machineWide;
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
};

struct DpkgField
{
    QByteArrayView name;
    QByteArrayView DpkgStanza::*value;
};

constexpr std::array<DpkgField, 7> dpkgFields{{{"Package", &DpkgStanza::package},
                                               {"Status", &DpkgStanza::status},
                                               {"Version", &DpkgStanza::version},
                                               {"Architecture", &DpkgStanza::architecture},
                                               {"Maintainer", &DpkgStanza::maintainer},
                                               {"Installed-Size", &DpkgStanza::installedSize},
                                               {"Multi-Arch", &DpkgStanza::multiArch}}};

void readDpkgField(QByteArrayView line, DpkgStanza& stanza)
{
    QByteArrayView value = line;
    const QByteArrayView name = takeUntil(value, ':').trimmed();
    for (const DpkgField& field : dpkgFields) {
        if (name.size() == field.name.size() &&
            name.compare(field.name, Qt::CaseInsensitive) == 0) {
            stanza.*field.value = value.trimmed();
            return;
        }
    }
}

QList<DpkgStanza> parseStanzas(QByteArrayView text)
{
    QList<DpkgStanza> stanzas;
    DpkgStanza stanza;
    while (!text.isEmpty()) {
        const QByteArrayView line = takeUntil(text, '\n');
        const bool continues = line.startsWith(' ') || line.startsWith('\t');
        if (!line.isEmpty() && !continues)
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
/// instance of the package, whose architecture may change unless both can be installed together.
void applyUpdate(QList<DpkgStanza>& stanzas, const DpkgStanza& update)
{
    DpkgStanza* replaced = nullptr;
    DpkgStanza* instance = nullptr;
    int instances = 0;
    for (DpkgStanza& stanza : stanzas) {
        if (stanza.package != update.package)
            continue;
        if (stanza.architecture == update.architecture)
            replaced = &stanza;
        if (stanza.state() != QByteArrayView("not-installed")) {
            instance = &stanza;
            ++instances;
        }
    }
    const auto isShared = [](const DpkgStanza& stanza) {
        return stanza.multiArch == QByteArrayView("same");
    };
    if (instances == 1 && !(isShared(*instance) && isShared(update)))
        replaced = instance;
    if (replaced != nullptr)
        *replaced = update;
    else
        stanzas.append(update);
}

bool isInstalled(const DpkgStanza& stanza)
{
    return stanza.state() == QByteArrayView("installed");
}

QString dpkgCommand(const DpkgStanza& stanza, QByteArrayView machine)
{
    const auto isPlain = [](QByteArrayView name) {
        return isPlainName(name, "+-.") &&
               std::none_of(name.begin(), name.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    };
    const QByteArrayView architecture = stanza.architecture;
    const bool isOwn = architecture.isEmpty() || architecture == machine || architecture == "all";
    if (!isPlain(stanza.package) || !(isOwn || isPlain(architecture)))
        return {};
    QString command = QStringLiteral("apt-get remove ") + QLatin1String(stanza.package);
    if (!isOwn)
        command += u':' + QLatin1String(architecture);
    return command;
}

} // namespace

QList<UninstallEntry> parseDpkgDatabase(QByteArrayView status, const QByteArrayList& journal)
{
    QList<DpkgStanza> stanzas = parseStanzas(status);
    for (const QByteArray& file : journal) {
        for (const DpkgStanza& update : parseStanzas(file))
            applyUpdate(stanzas, update);
    }
    // dpkg is of the machine's own architecture.
    const auto dpkg = std::find_if(stanzas.cbegin(), stanzas.cend(), [](const DpkgStanza& stanza) {
        return stanza.package == QByteArrayView("dpkg") && isInstalled(stanza);
    });
    const QByteArrayView machine = dpkg == stanzas.cend() ? QByteArrayView() : dpkg->architecture;

    QList<UninstallEntry> entries;
    entries.reserve(stanzas.size());
    for (const DpkgStanza& stanza : stanzas) {
        if (!isInstalled(stanza))
            continue;
        UninstallEntry entry;
        entry.source = systemSource(stanza.architecture);
        entry.displayName = shown(stanza.package);
        entry.identifier = entry.displayName + u':' + shown(stanza.architecture);
        entry.displayVersion = shown(stanza.version);
        entry.publisher = shown(stanza.maintainer);
        entry.uninstallString = dpkgCommand(stanza, machine);
        entry.estimatedSizeKb = sizeFrom(stanza.installedSize);
        entries.append(std::move(entry));
    }
    return entries;
}

namespace {

// Control bytes, so that no field of ordinary text can pose as another.
constexpr char unitSeparator = '\x1f';
constexpr char recordSeparator = '\x1e';

constexpr std::array<const char*, 8> rpmTags{"NAME", "EPOCH",    "VERSION", "RELEASE",
                                             "ARCH", "LONGSIZE", "VENDOR",  "PACKAGER"};
using RpmFields = std::array<QByteArrayView, rpmTags.size()>;

/// The fields of one record; none when there are more or fewer. What a package lacks is empty.
std::optional<RpmFields> rpmFields(QByteArrayView record)
{
    if (std::count(record.begin(), record.end(), unitSeparator) != rpmTags.size() - 1)
        return std::nullopt;
    RpmFields fields;
    for (QByteArrayView& field : fields) {
        field = takeUntil(record, unitSeparator);
        if (field == QByteArrayView("(none)"))
            field = {};
    }
    return fields;
}

qint64 kibFromBytes(qint64 bytes)
{
    constexpr qint64 kib = 1024;
    return bytes / kib + (bytes % kib == 0 ? 0 : 1);
}

} // namespace

QString rpmQueryFormat()
{
    QString format;
    for (const char* tag : rpmTags) {
        format += format.isEmpty() ? QString() : QString(QLatin1Char(unitSeparator));
        format += QStringLiteral("%{") + QLatin1String(tag) + u'}';
    }
    return format + QLatin1Char(recordSeparator);
}

QList<UninstallEntry> parseRpmPackages(QByteArrayView output)
{
    QList<UninstallEntry> entries;
    while (!output.isEmpty()) {
        const auto fields = rpmFields(takeUntil(output, recordSeparator));
        if (!fields)
            continue;
        const auto& [name, epoch, version, release, architecture, size, vendor, packager] = *fields;
        // A key that rpm trusts is kept as a package of this name.
        if (name.isEmpty() || name == QByteArrayView("gpg-pubkey"))
            continue;
        QByteArray key =
            name.toByteArray() + '-' + version.toByteArray() + '-' + release.toByteArray();
        if (!architecture.isEmpty())
            key += '.' + architecture.toByteArray();

        UninstallEntry entry;
        entry.source = systemSource(architecture);
        entry.identifier = shown(key);
        entry.displayName = shown(name);
        entry.displayVersion = shown(version) + u'-' + shown(release);
        if (!epoch.isEmpty())
            entry.displayVersion.prepend(shown(epoch) + u':');
        entry.publisher = shown(vendor.isEmpty() ? packager : vendor);
        if (isPlainName(key, "._+~^-"))
            entry.uninstallString = QStringLiteral("rpm -e ") + QLatin1String(key);
        entry.estimatedSizeKb = kibFromBytes(sizeFrom(size));
        entries.append(std::move(entry));
    }
    return entries;
}

namespace {

/// KiB from a size as in "1.5 MB", with an ordinary or a no-break space; 0 when it is none.
qint64 kibFromSizeText(QByteArrayView text)
{
    static constexpr std::array<QByteArrayView, 6> units{"bytes", "kB", "MB", "GB", "TB", "PB"};
    QByteArray plain = text.toByteArray().replace("\u00a0", " ");
    QByteArrayView rest = plain;
    bool isNumber = false;
    const double number = takeWord(rest).toByteArray().toDouble(&isNumber);
    const QByteArrayView unitName = takeWord(rest);
    const auto unit =
        std::find(units.begin(), units.end(), unitName == "byte" ? "bytes" : unitName);
    if (!isNumber || unit == units.end())
        return 0;
    constexpr double longest = 1e6; // g_format_size() goes over to the next unit at 1000
    if (!(number >= 0 && number <= longest))
        return 0;
    return static_cast<qint64>(
        std::ceil(number * std::pow(1000.0, std::distance(units.begin(), unit)) / 1024));
}

/// Whether `ref` is ID/ARCH/BRANCH, each a plain name.
bool isFlatpakRef(QByteArrayView ref)
{
    if (std::count(ref.begin(), ref.end(), '/') != 2)
        return false;
    while (!ref.isEmpty()) {
        if (!isPlainName(takeUntil(ref, '/'), "._-+"))
            return false;
    }
    return true;
}

} // namespace

QString flatpakColumns()
{
    // Those that an application's author words come last: they may hold tabs and line feeds.
    return QStringLiteral("ref,origin,size,options,version,name");
}

QList<UninstallEntry> parseFlatpakList(QByteArrayView output, bool perUser)
{
    QList<UninstallEntry> entries;
    while (!output.isEmpty()) {
        QByteArrayView line = takeUntil(output, '\n');
        const QByteArrayView ref = takeUntil(line, '\t');
        const QByteArrayView origin = takeUntil(line, '\t');
        const QByteArrayView size = takeUntil(line, '\t');
        const QByteArrayView options = takeUntil(line, '\t');
        const bool isWhole = line.contains('\t');
        const QByteArrayView version = takeUntil(line, '\t');
        QByteArrayView rest = ref;
        const QByteArrayView id = takeUntil(rest, '/');
        const QByteArrayView architecture = takeUntil(rest, '/');
        if (!isWhole || id.isEmpty() || rest.isEmpty())
            continue;
        UninstallEntry entry;
        entry.source = perUser ? perUserSource : systemSource(architecture);
        entry.displayName = shown(line.trimmed().isEmpty() ? id : line.trimmed());
        entry.displayVersion = shown(version.isEmpty() ? rest : version);
        entry.publisher = shown(origin);
        entry.estimatedSizeKb = kibFromSizeText(size);
        if (isFlatpakRef(ref)) {
            const bool isRuntime = options.indexOf(QByteArrayView("runtime")) >= 0;
            entry.identifier = (isRuntime ? QStringLiteral("runtime/") : QStringLiteral("app/")) +
                               QLatin1String(ref);
            entry.uninstallString = (perUser ? QStringLiteral("flatpak uninstall --user ")
                                             : QStringLiteral("flatpak uninstall ")) +
                                    entry.identifier;
        }
        entries.append(std::move(entry));
    }
    return entries;
}

namespace {

/// A column of a table for people: where its heading begins and where the next one does.
struct TableColumn
{
    qsizetype begin = -1;
    qsizetype end = -1;

    TableColumn(const QString& header, QLatin1String heading) : begin(header.indexOf(heading))
    {
        end = begin < 0 ? -1 : header.indexOf(u' ', begin);
        while (end >= 0 && end < header.size() && header[end] == u' ')
            ++end;
    }

    /// What stands there in `line`; empty for the dash that marks nothing.
    QString in(const QString& line) const
    {
        const QString cell = line.mid(begin, end < 0 ? -1 : end - begin).trimmed();
        return cell == u'-' ? QString() : cell;
    }
};

/// The publisher without the marks of one that the store has verified or starred.
QString withoutMarks(QString publisher)
{
    while (publisher.endsWith(u'*') || publisher.endsWith(u'\u2713') ||
           publisher.endsWith(u'\u272a'))
        publisher.chop(1);
    return publisher;
}

} // namespace

std::optional<QList<UninstallEntry>> parseSnapList(QByteArrayView output)
{
    QList<UninstallEntry> entries;
    if (output.isEmpty()) // it says on standard error that there are none
        return entries;
    const QString header = textFromSystem(takeUntil(output, '\n'));
    const TableColumn name(header, QLatin1String("Name"));
    const TableColumn version(header, QLatin1String("Version"));
    const TableColumn revision(header, QLatin1String("Rev"));
    const TableColumn publisher(header, QLatin1String("Publisher"));
    if (name.begin != 0 || version.begin < 0 || revision.begin < 0 || publisher.begin < 0)
        return std::nullopt;
    while (!output.isEmpty()) {
        const QString line = textFromSystem(takeUntil(output, '\n')).left(shownLimit);
        UninstallEntry entry;
        entry.displayName = name.in(line);
        if (entry.displayName.isEmpty())
            continue;
        entry.displayVersion = version.in(line);
        entry.publisher = withoutMarks(publisher.in(line));
        const QByteArray key = entry.displayName.toUtf8() + '_' + revision.in(line).toUtf8();
        if (isPlainName(key, "-_")) {
            entry.identifier = QLatin1String(key);
            entry.uninstallString = QStringLiteral("snap remove ") + entry.displayName;
        }
        entries.append(std::move(entry));
    }
    return entries;
}

} // namespace korvane::linux_platform
