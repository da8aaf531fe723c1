// Enumeration of installed software from the databases of the package managers.
#include "platform/software.h"

#include "base/watchdog.h"
#include "platform/linux/software/package_databases.h"
#include "platform/linux/software/software_sources.h"
#include "platform/linux/sys/proc_fs.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QStandardPaths>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <utility>

namespace korvane {

namespace linux_platform {

namespace {

/// A package manager, and what it answered.
struct SourceListing
{
    QString source;
    bool exists = true;
    QString error = {}; ///< Empty after a success.
    QList<UninstallEntry> entries = {};
    HelperCommand command = {}; ///< Prints the list; none where the database could be read.
    std::function<void(SourceListing&, const QByteArray& output)> read = {}; ///< Parses it.
};

/// What `path` holds; none, and errno, when it cannot be read whole.
std::optional<QByteArray> readWhole(const QString& path)
{
    constexpr qsizetype limit = qsizetype{256} * 1024 * 1024;
    auto content = readSystemFile(QFile::encodeName(path).constData(), limit);
    if (!content || content->size() < limit)
        return content;
    errno = EFBIG;
    return std::nullopt;
}

SourceListing listDpkg(const QString& root)
{
    SourceListing listing{QStringLiteral("dpkg")};
    const auto fail = [&listing](const QString& path) {
        listing.error = path + QStringLiteral(": ") + qt_error_string(errno);
        return listing;
    };
    const QString path = root + QStringLiteral("/var/lib/dpkg/status");
    const auto status = readWhole(path);
    listing.exists = status || errno != ENOENT;
    if (!status)
        return fail(path);
    QByteArrayList journal;
    const QDir updates(root + QStringLiteral("/var/lib/dpkg/updates"));
    for (const QString& name : updates.entryList(QDir::Files, QDir::Name)) {
        if (!std::all_of(name.begin(), name.end(), [](QChar c) { return c >= u'0' && c <= u'9'; }))
            continue;
        if (const auto update = readWhole(updates.filePath(name)))
            journal.append(*update);
        else if (errno != ENOENT) // else dpkg has just merged it
            return fail(updates.filePath(name));
    }
    listing.entries = parseDpkgDatabase(*status, journal);
    return listing;
}

SourceListing rpmSource(const QString& root)
{
    SourceListing listing{QStringLiteral("rpm"), false};
    for (const char* directory : {"/var/lib/rpm", "/usr/lib/sysimage/rpm"}) {
        for (const char* file : {"/rpmdb.sqlite", "/Packages", "/Packages.db"}) {
            const QFileInfo database(root + QLatin1String(directory) + QLatin1String(file));
            listing.exists = listing.exists || database.size() > 0;
        }
    }
    const QString format = QStringLiteral("--queryformat=") + rpmQueryFormat();
    listing.command = {QStringLiteral("rpm"), {QStringLiteral("-qa"), format}};
    listing.read = [](SourceListing& asked, const QByteArray& output) {
        asked.entries = parseRpmPackages(output);
    };
    return listing;
}

/// Notes where `entry` is installed, if that is there.
void locate(UninstallEntry& entry, const QString& location)
{
    Watchdog::step();
    if (!entry.identifier.isEmpty() && QFileInfo::exists(location))
        entry.installLocation = location;
}

SourceListing flatpakSource(const QString& directory, bool perUser)
{
    const QString option = perUser ? QStringLiteral("--user") : QStringLiteral("--system");
    SourceListing listing{QStringLiteral("flatpak ") + option};
    Watchdog::step();
    // A home may be on a server that is dead: without a program to ask, it is left alone.
    listing.exists =
        !perUser || !QStandardPaths::findExecutable(QStringLiteral("flatpak")).isEmpty();
    // Without either nothing is installed there; asked all the same, flatpak would create it.
    listing.exists = listing.exists && (QFileInfo::exists(directory + QStringLiteral("/app")) ||
                                        QFileInfo::exists(directory + QStringLiteral("/runtime")));
    const QString columns = QStringLiteral("--columns=") + flatpakColumns();
    listing.command = {QStringLiteral("flatpak"), {QStringLiteral("list"), option, columns}};
    listing.read = [directory, perUser](SourceListing& asked, const QByteArray& output) {
        asked.entries = parseFlatpakList(output, perUser);
        for (UninstallEntry& entry : asked.entries)
            locate(entry, directory + u'/' + entry.identifier + QStringLiteral("/active"));
    };
    return listing;
}

SourceListing snapSource(const QString& root)
{
    Watchdog::step();
    const QDir snapd(root + QStringLiteral("/var/lib/snapd"));
    SourceListing listing{QStringLiteral("snap"), snapd.exists(QStringLiteral("state.json"))};
    listing.command = {listing.source,
                       {QStringLiteral("list"), QStringLiteral("--unicode=never"),
                        QStringLiteral("--color=never")}};
    listing.read = [root, snapd](SourceListing& asked, const QByteArray& output) {
        const auto entries = parseSnapList(output);
        if (!entries)
            asked.error = QStringLiteral("无法识别的输出");
        asked.entries = entries.value_or(QList<UninstallEntry>());
        for (UninstallEntry& entry : asked.entries) {
            locate(entry, QStringLiteral("%1/snap/%2/current").arg(root, entry.displayName));
            const QFileInfo image(snapd, QStringLiteral("snaps/%1.snap").arg(entry.identifier));
            entry.estimatedSizeKb = (image.size() + 1023) / 1024;
        }
    };
    return listing;
}

/// Asks all that have a command.
void ask(QList<SourceListing>& listings, const HelperLimits& limits)
{
    QList<HelperCommand> commands;
    for (const SourceListing& listing : std::as_const(listings)) {
        if (listing.read)
            commands += listing.command;
    }
    const QList<HelperResult> results = runHelpers(commands, limits);
    auto result = results.cbegin();
    for (SourceListing& listing : listings) {
        if (!listing.read)
            continue;
        Watchdog::step();
        listing.error = result->error;
        listing.read(listing, result->output);
        ++result;
    }
}

void logOnce(const SourceListing& failed)
{
    static QHash<QString, bool> logged;
    if (!std::exchange(logged[failed.source], true))
        qWarning("[UninstallService] 未列出 %s: %s", qUtf8Printable(failed.source),
                 qUtf8Printable(failed.error));
}

} // namespace

QList<UninstallEntry> listInstalledSoftware(const QString& root, const HelperLimits& limits,
                                            QString* error)
{
    const QString userData = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const QString userFlatpaks =
        qEnvironmentVariable("FLATPAK_USER_DIR", userData + QStringLiteral("/flatpak"));
    QList<SourceListing> listings{listDpkg(root), rpmSource(root),
                                  flatpakSource(root + QStringLiteral("/var/lib/flatpak"), false),
                                  flatpakSource(userFlatpaks, true), snapSource(root)};
    listings.removeIf([](const SourceListing& listing) { return !listing.exists; });
    Watchdog::step();
    ask(listings, limits);
    QStringList reasons;
    QList<UninstallEntry> entries;
    for (const SourceListing& listing : listings) {
        entries += listing.entries;
        if (!listing.error.isEmpty())
            reasons += QStringLiteral("%1 (%2)").arg(listing.source, listing.error);
    }
    const bool isAnyRead = reasons.size() < listings.size();
    for (const SourceListing& listing : listings) {
        if (isAnyRead && !listing.error.isEmpty())
            logOnce(listing);
    }
    if (listings.isEmpty())
        reasons += QStringLiteral("没有 dpkg, rpm, flatpak 或 snap 的数据库");
    if (error != nullptr && !isAnyRead)
        *error = QStringLiteral("无法读取已安装软件: ") + reasons.join(QStringLiteral("; "));
    return entries;
}

} // namespace linux_platform

QList<UninstallEntry> platform::listSoftware(QString* error)
{
    return linux_platform::listInstalledSoftware({}, {}, error);
}

} // namespace korvane
