// The service that verifies code signatures, with its two layers of cache.
#pragma once

#include "base/singleton.h"
#include "base/system_records.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QSettings>
#include <QString>

#include <memory>
#include <optional>

namespace korvane {

/// Verifies signatures through the platform layer. Answers are remembered in memory until
/// clearCache(), and across restarts in the application's settings until the file's modification
/// time changes. Keys are the paths exactly as given.
///
/// Threads: verify(), signerName() and the cache look-ups may be called from any thread. The
/// cache lock and the settings lock are never held together, and neither is held while the
/// platform verifies.
class SignatureService : public QObject, public Singleton<SignatureService>
{
    Q_OBJECT

public:
    /// The status of the file at `path`, verified when neither cache knows it. Unknown for an
    /// empty path, and for one that leaves this machine, which is not looked at. A file of which no
    /// record exists, and none can come to be, is left alone.
    SignatureStatus verify(const QString& path);

    /// The status in the memory cache; Unchecked when absent, Unknown for an empty path. Touches
    /// neither the settings nor the file.
    SignatureStatus cached(const QString& path) const;

    /// The signer of the file at `path`, asked from the platform once; empty when there is none.
    QString signerName(const QString& path);

    /// The signer in the memory cache; empty when absent.
    QString cachedSigner(const QString& path) const;

    /// Empties the memory caches; persisted records stay.
    void clearCache();

    /// Writes pending records to permanent storage.
    void flushPersistent();

    /// Number of statuses in the memory cache.
    int cacheSize() const;

private:
    friend class Singleton<SignatureService>;
    SignatureService() = default;

    /// Platform operations: verify the signature of a file, and name its signer. Called from any
    /// thread, from several at once, and with no lock held.
    SignatureStatus verifyPlatform(const QString& path) const;
    QString signerNamePlatform(const QString& path) const;

    /// The application's settings, opened by the first call: that reads a file, which may lie where
    /// nobody answers. m_settingsLock is held.
    QSettings& settings() const;

    /// Whether there is a persisted record of `path`, of any time.
    bool isPersisted(const QString& path) const;

    /// The persisted status of `path` at exactly that modification time (milliseconds since the
    /// epoch); Unchecked when there is no such record or it is damaged.
    SignatureStatus loadPersisted(const QString& path, qint64 mtimeMs) const;
    void savePersisted(const QString& path, qint64 mtimeMs, SignatureStatus status);

    /// The entry of the memory cache, none when absent.
    std::optional<SignatureStatus> inMemory(const QString& path) const;
    SignatureStatus remember(const QString& path, SignatureStatus status);

    mutable QReadWriteLock m_cacheLock; ///< Guards the two hashes.
    QHash<QString, SignatureStatus> m_statusCache;
    QHash<QString, QString> m_signerCache; ///< Holds empty names too.
    mutable QMutex m_settingsLock;         ///< Guards the settings object, and its making.
    mutable std::unique_ptr<QSettings> m_settings;
};

} // namespace korvane
