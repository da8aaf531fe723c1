// Signature look-ups: memory cache, persisted cache, platform, in that order.
#include "core/signatures.h"

#include "platform/paths.h"
#include "platform/signatures.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

/// Modification time in milliseconds since the epoch; 0 when there is no file or no time.
qint64 modificationTimeMs(const QString& path)
{
    const QFileInfo file(path);
    if (!file.exists())
        return 0;
    const QDateTime time = file.lastModified();
    return time.isValid() ? time.toMSecsSinceEpoch() : 0;
}

QString recordKey(const QString& path)
{
    const QByteArray digest = QCryptographicHash::hash(path.toUtf8(), QCryptographicHash::Sha1);
    return u"sigcache/"_s + QString::fromLatin1(digest.toHex());
}

/// The status in a record "TIME|STATUS" if it is whole and its time is `mtimeMs`.
SignatureStatus statusOfRecord(const QString& record, qint64 mtimeMs)
{
    const qsizetype separator = record.indexOf(QLatin1Char('|'));
    if (separator < 1)
        return SignatureStatus::Unchecked;
    bool timeParsed = false;
    bool statusParsed = false;
    const qint64 time = record.left(separator).toLongLong(&timeParsed);
    const int status = record.mid(separator + 1).toInt(&statusParsed);
    const bool inRange = status >= 0 && status <= static_cast<int>(SignatureStatus::Unknown);
    if (!timeParsed || !statusParsed || time != mtimeMs || !inRange)
        return SignatureStatus::Unchecked;
    return static_cast<SignatureStatus>(status);
}

} // namespace

SignatureStatus SignatureService::verify(const QString& path)
{
    if (path.isEmpty())
        return SignatureStatus::Unknown;
    if (const auto known = inMemory(path))
        return *known;
    if (!platform::isLocalPath(path))
        return remember(path, SignatureStatus::Unknown);

    // The time is that of before the verification: what changes during it is verified again.
    const bool needsTime = isPersisted(path) || platform::canVerifySignatures();
    const qint64 mtimeMs = needsTime ? modificationTimeMs(path) : 0;
    const bool persistable = mtimeMs >= 1;
    if (persistable) {
        const SignatureStatus persisted = loadPersisted(path, mtimeMs);
        if (persisted != SignatureStatus::Unchecked)
            return remember(path, persisted);
    }

    const SignatureStatus status = remember(path, verifyPlatform(path));
    if (persistable && status != SignatureStatus::Unknown)
        savePersisted(path, mtimeMs, status);
    return status;
}

SignatureStatus SignatureService::cached(const QString& path) const
{
    if (path.isEmpty())
        return SignatureStatus::Unknown;
    return inMemory(path).value_or(SignatureStatus::Unchecked);
}

QString SignatureService::signerName(const QString& path)
{
    if (path.isEmpty())
        return {};
    {
        const QReadLocker locker(&m_cacheLock);
        if (const auto known = m_signerCache.constFind(path); known != m_signerCache.constEnd())
            return *known;
    }
    QString name = platform::isLocalPath(path) ? signerNamePlatform(path) : QString();
    const QWriteLocker locker(&m_cacheLock);
    m_signerCache.insert(path, name);
    return name;
}

QString SignatureService::cachedSigner(const QString& path) const
{
    const QReadLocker locker(&m_cacheLock);
    return m_signerCache.value(path);
}

void SignatureService::clearCache()
{
    const QWriteLocker locker(&m_cacheLock);
    m_statusCache.clear();
    m_signerCache.clear();
}

void SignatureService::flushPersistent()
{
    const QMutexLocker locker(&m_settingsLock);
    if (m_settings != nullptr)
        m_settings->sync();
}

int SignatureService::cacheSize() const
{
    const QReadLocker locker(&m_cacheLock);
    return static_cast<int>(m_statusCache.size());
}

QSettings& SignatureService::settings() const
{
    if (m_settings == nullptr) {
        m_settings = std::make_unique<QSettings>();
        m_settings->moveToThread(thread()); // whose event loop writes what is pending
    }
    return *m_settings;
}

bool SignatureService::isPersisted(const QString& path) const
{
    const QMutexLocker locker(&m_settingsLock);
    return settings().contains(recordKey(path));
}

SignatureStatus SignatureService::loadPersisted(const QString& path, qint64 mtimeMs) const
{
    const QMutexLocker locker(&m_settingsLock);
    return statusOfRecord(settings().value(recordKey(path)).toString(), mtimeMs);
}

void SignatureService::savePersisted(const QString& path, qint64 mtimeMs, SignatureStatus status)
{
    const QString record =
        u"%1|%2"_s.arg(QString::number(mtimeMs), QString::number(static_cast<int>(status)));
    const QMutexLocker locker(&m_settingsLock);
    settings().setValue(recordKey(path), record);
}

std::optional<SignatureStatus> SignatureService::inMemory(const QString& path) const
{
    const QReadLocker locker(&m_cacheLock);
    const auto known = m_statusCache.constFind(path);
    return known == m_statusCache.constEnd() ? std::nullopt : std::optional(*known);
}

SignatureStatus SignatureService::remember(const QString& path, SignatureStatus status)
{
    const QWriteLocker locker(&m_cacheLock);
    m_statusCache.insert(path, status);
    return status;
}

SignatureStatus SignatureService::verifyPlatform(const QString& path) const
{
    return platform::verifySignature(path);
}

QString SignatureService::signerNamePlatform(const QString& path) const
{
    return platform::signerName(path);
}

} // namespace korvane
