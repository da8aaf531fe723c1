// Measures what could be removed of each kind of junk.
#pragma once

#include "base/op_result.h"
#include "core/junk_catalog.h"

#include <QObject>

#include <atomic>
#include <functional>

namespace korvane {

/// What there is of one kind of junk.
struct JunkItem
{
    QString id;
    QString name;
    QString description;
    JunkGroup group = JunkGroup::system;
    JunkSafety safety = JunkSafety::safe;
    qint64 sizeBytes = 0; ///< Of all counted files together.
    qint32 fileCount = 0; ///< Files at any depth.

    /// What a removal moves, with "/" as separator: the direct entries of the roots, or the files
    /// that match the patterns. Absolute, if the roots are. An entry that no such text leads back to
    /// is counted but not in here.
    QStringList paths;
    QStringList guardProcesses;

    /// The size as "0 MB", "3.5 MB", "250 MB" or "1.25 GB".
    QString sizeDisplay() const;

    /// Whether there is nothing worth a removal: no file, or none that can be moved.
    bool isEmpty() const { return fileCount == 0 || paths.isEmpty(); }
};

/// Scans junk. The tools call the static operations; process() is the same scan of the whole catalog
/// for a worker thread: move a scanner there, invoke process() and listen to the signals. A scanner
/// that was cancelled is spent.
class JunkScanner : public QObject
{
    Q_OBJECT

public:
    explicit JunkScanner(QObject* parent = nullptr);

    /// Looks through the category's roots, reading nothing but directories and what they say of
    /// files; what cannot be read counts nothing. Once `cancel`, which may be null, is true, returns
    /// what was counted so far. Runs on any thread.
    static JunkItem scanCategory(const JunkCategory& category, const std::atomic<bool>* cancel);

    /// Told of each category of the catalog before it is scanned; false leaves it out.
    using CategoryFilter = std::function<bool(const JunkCategory&, int index, int total)>;

    /// scanCategory() of those that `isWanted`, in the catalog's order; what is empty is left out.
    static QList<JunkItem> scanCatalog(const CategoryFilter& isWanted,
                                       const std::atomic<bool>* cancel = nullptr);

    /// Moves the paths of items that were scanned just now to the recycle bin, in one go: see
    /// platform::moveToRecycleBin().
    static OpResult moveToRecycleBin(const QStringList& paths);

    /// Those of `names` that a running process has, in any letter case. Asks ProcessService, and so
    /// belongs to its thread; asks nobody for no names.
    static QStringList runningGuardProcesses(const QStringList& names);

public Q_SLOTS:
    /// Scans the catalog's categories one by one; blocks until finished() or cancelled() is emitted.
    void process();

    /// Ends process() within one file. Callable from any thread.
    void cancel();

Q_SIGNALS:
    /// Before a category is scanned; `index` counts from 1.
    void progress(const QString& categoryName, int index, int total);

    /// The categories that hold something, by group and then from the largest to the smallest.
    void finished(const QList<JunkItem>& items, qint64 totalBytes);

    void cancelled();

private:
    std::atomic<bool> m_cancelRequested{false}; ///< Never reset.
};

} // namespace korvane
