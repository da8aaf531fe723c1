// Enumeration of installed software from the databases of the package managers.
#include "platform/linux/installed_software.h"

#include "core/uninstall_service.h"
#include "platform/linux/package_databases.h"
#include "platform/linux/proc_fs.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QStandardPaths>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

namespace korvane {

namespace linux_platform {

namespace {

constexpr qsizetype statusLimit = qsizetype{256} * 1024 * 1024;
constexpr qsizetype journalFileLimit = qsizetype{1024} * 1024;
/// dpkg merges its journal at 250 files.
constexpr qsizetype journalFilesLimit = 1000;

/// What one source answered.
struct SourceListing
{
    QString source;
    QList<UninstallEntry> entries;
    QString error; ///< Empty after a success.
};

/// What `path` holds; none, and `error`, when it cannot be read whole. A file that is not there
/// leaves `error` empty.
std::optional<QByteArray> readWhole(const QString& path, qsizetype limit, QString& error)
{
    auto content = readSystemFile(QFile::encodeName(path).constData(), limit + 1);
    if (content && content->size() <= limit)
        return content;
    if (content || errno != ENOENT) {
        error = QStringLiteral("%1: %2").arg(path, content ? qt_error_string(EFBIG)
                                                           : qt_error_string(errno));
    }
    return std::nullopt;
}

/// The files of dpkg's journal in their order; `error` when one cannot be read. One that vanishes
/// has just been merged.
QByteArrayList readJournal(const QString& directory, QString& error)
{
    QByteArrayList journal;
    const QStringList names = QDir(directory).entryList(QDir::Files, QDir::Name);
    for (const QString& name : names) {
        const bool isNumber =
            std::all_of(name.cbegin(), name.cend(), [](QChar c) { return c >= u'0' && c <= u'9'; });
        if (!isNumber || !error.isEmpty())
            continue;
        if (const auto file = readWhole(directory + u'/' + name, journalFileLimit, error))
            journal.append(*file);
        if (journal.size() > journalFilesLimit)
            error = QStringLiteral("%1: %2").arg(directory, qt_error_string(EFBIG));
    }
    return journal;
}

std::optional<SourceListing> listDpkg(const SoftwareSources& sources)
{
    SourceListing listing{QStringLiteral("dpkg"), {}, {}};
    const auto status =
        readWhole(sources.dpkg + QStringLiteral("/status"), statusLimit, listing.error);
    if (!status && listing.error.isEmpty())
        return std::nullopt;
    const QByteArrayList journal =
        status ? readJournal(sources.dpkg + QStringLiteral("/updates"), listing.error)
               : QByteArrayList();
    if (listing.error.isEmpty())
        listing.entries = parseDpkgDatabase(*status, journal);
    return listing;
}

std::optional<SourceListing> listRpm(const SoftwareSources& sources)
{
    const auto holdsPackages = [](const QString& directory) {
        static const std::array files{QStringLiteral("/rpmdb.sqlite"), QStringLiteral("/Packages"),
                                      QStringLiteral("/Packages.db")};
        return std::any_of(files.begin(), files.end(), [&directory](const QString& file) {
            return QFileInfo(directory + file).size() > 0;
        });
    };
    if (std::none_of(sources.rpmDatabases.begin(), sources.rpmDatabases.end(), holdsPackages))
        return std::nullopt;
    const HelperResult result = runHelper(
        sources.rpmProgram +
            QStringList{QStringLiteral("-qa"), QStringLiteral("--queryformat"), rpmQueryFormat()},
        sources.helperLimits);
    return SourceListing{QStringLiteral("rpm"), parseRpmPackages(result.output), result.error};
}

std::optional<SourceListing> listFlatpak(const SoftwareSources& sources, const QString& directory,
                                         bool perUser)
{
    // Without either nothing is installed there; asked all the same, flatpak would create it.
    if (!QFileInfo::exists(directory + QStringLiteral("/app")) &&
        !QFileInfo::exists(directory + QStringLiteral("/runtime")))
        return std::nullopt;
    const QString option = perUser ? QStringLiteral("--user") : QStringLiteral("--system");
    const HelperResult result = runHelper(
        sources.flatpakProgram + QStringList{QStringLiteral("list"), option,
                                             QStringLiteral("--columns"), flatpakColumns()},
        sources.helperLimits);
    SourceListing listing{QStringLiteral("flatpak ") + option,
                          parseFlatpakList(result.output, perUser), result.error};
    for (UninstallEntry& entry : listing.entries) {
        const QString location = directory + u'/' + entry.identifier + QStringLiteral("/active");
        if (!entry.identifier.isEmpty() && QFileInfo::exists(location))
            entry.installLocation = location;
    }
    return listing;
}

std::optional<SourceListing> listSystemFlatpaks(const SoftwareSources& sources)
{
    return listFlatpak(sources, sources.flatpakSystem, false);
}

std::optional<SourceListing> listUserFlatpaks(const SoftwareSources& sources)
{
    return listFlatpak(sources, sources.flatpakUser, true);
}

std::optional<SourceListing> listSnaps(const SoftwareSources& sources)
{
    if (!QFileInfo::exists(sources.snapd + QStringLiteral("/state.json")))
        return std::nullopt;
    const HelperResult result = runHelper(
        sources.snapProgram + QStringList{QStringLiteral("list"), QStringLiteral("--unicode=never"),
                                          QStringLiteral("--color=never")},
        sources.helperLimits);
    SourceListing listing{QStringLiteral("snap"), {}, result.error};
    if (!result.error.isEmpty())
        return listing;
    auto entries = parseSnapList(result.output);
    if (!entries) {
        listing.error = QStringLiteral("无法识别 snap list 的输出");
        return listing;
    }
    for (UninstallEntry& entry : *entries) {
        if (entry.identifier.isEmpty())
            continue;
        const QString location =
            QStringLiteral("%1/%2/current").arg(sources.snapMounts, entry.displayName);
        if (QFileInfo::exists(location))
            entry.installLocation = location;
        constexpr qint64 kib = 1024;
        const QFileInfo image(
            QStringLiteral("%1/snaps/%2.snap").arg(sources.snapd, entry.identifier));
        entry.estimatedSizeKb = (image.size() + kib - 1) / kib;
    }
    listing.entries = std::move(*entries);
    return listing;
}

void logOnce(const SourceListing& listing)
{
    static QSet<QString> logged;
    if (logged.contains(listing.source))
        return;
    logged.insert(listing.source);
    qWarning().noquote() << "[UninstallService]"
                         << QStringLiteral("未列出 %1: %2").arg(listing.source, listing.error);
}

} // namespace

SoftwareSources::SoftwareSources()
    : flatpakSystem(qEnvironmentVariable("FLATPAK_SYSTEM_DIR")),
      flatpakUser(qEnvironmentVariable("FLATPAK_USER_DIR"))
{
    if (flatpakSystem.isEmpty())
        flatpakSystem = QStringLiteral("/var/lib/flatpak");
    if (flatpakUser.isEmpty())
        flatpakUser = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                      QStringLiteral("/flatpak");
}

QList<UninstallEntry> listInstalledSoftware(const SoftwareSources& sources, QString* error)
{
    QList<SourceListing> failed;
    QList<UninstallEntry> entries;
    bool isAnyRead = false;
    for (const auto list : {listDpkg, listRpm, listSystemFlatpaks, listUserFlatpaks, listSnaps}) {
        auto listing = list(sources);
        if (listing && listing->error.isEmpty()) {
            isAnyRead = true;
            entries += std::move(listing->entries);
        } else if (listing) {
            failed.append(std::move(*listing));
        }
    }
    if (isAnyRead) {
        std::for_each(failed.cbegin(), failed.cend(), logOnce);
        return entries;
    }
    if (error == nullptr)
        return {};
    QStringList reasons;
    for (const SourceListing& listing : failed)
        reasons += QStringLiteral("%1 (%2)").arg(listing.source, listing.error);
    if (reasons.isEmpty())
        reasons += QStringLiteral("未找到 dpkg, rpm, flatpak 或 snap 的数据库");
    *error = QStringLiteral("无法读取已安装软件: ") + reasons.join(QStringLiteral("; "));
    return {};
}

} // namespace linux_platform

QList<UninstallEntry> UninstallService::enumPlatform(QString* error) const
{
    return linux_platform::listInstalledSoftware({}, error);
}

} // namespace korvane
