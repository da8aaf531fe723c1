// Moves files and directories to the recycle bin: FreeDesktop.org's trash.
#include "platform/recycle_bin.h"

#include "platform/linux/files/file_status.h"
#include "platform/linux/trash/movable_entry.h"
#include "platform/linux/trash/trash_mover.h"
#include "platform/portable/recycle_tally.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

namespace linux_platform {

namespace {

using Outcome = TrashCandidate::Outcome;

/// What is moved together: as much as is worth one writing of the disk, as little as leaves a file
/// that is copied and not yet removed no time to change.
constexpr std::size_t batchSize = 128;
constexpr qint64 batchBytes = qint64{256} * 1024 * 1024;

/// The directories without which the session, or this program, is not what it was.
QList<QByteArray> protectedPaths()
{
    QList<QByteArray> paths{qgetenv("HOME"),
                            qgetenv("TMPDIR"),
                            qgetenv("XDG_RUNTIME_DIR"),
                            TrashDirectory::homePath(),
                            "/tmp",
                            "."};
    paths.removeAll(QByteArray());
    return paths;
}

/// Whether the handle is of the temporary directory, and that is the home, a directory around it or
/// the root: what lies there is no junk.
bool isTempAroundHome(int directory)
{
    const auto isSame = [](const struct stat& one, int handle) {
        struct stat other = {};
        return ::fstat(handle, &other) == 0 && isSameFile(one, other);
    };
    constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    struct stat temp = {};
    if (::stat(QFile::encodeName(QDir::tempPath()).constData(), &temp) != 0 ||
        !isSame(temp, directory))
        return false;
    const UniqueFd root(::open("/", flags));
    UniqueFd above(::open(QFile::encodeName(QDir::homePath()).constData(), flags));
    while (above.isValid() && !isSame(temp, above.get())) {
        struct stat here = {};
        if (::fstat(above.get(), &here) != 0 || isSame(here, root.get()))
            break;
        above = UniqueFd(::openat(above.get(), "..", flags));
    }
    return isSame(temp, root.get()) || isSame(temp, above.get());
}

/// Whether the directory at this real path is a trash, or lies in one.
bool isInTrash(const QByteArray& path)
{
    const QByteArray home = QFile::encodeName(
        QFileInfo(QFile::decodeName(TrashDirectory::homePath())).canonicalFilePath());
    if (!home.isEmpty() && (path + '/').startsWith(home + '/'))
        return true;
    const QList<QByteArray> names = path.split('/');
    return std::any_of(names.begin(), names.end(), [](const QByteArray& name) {
        return name == ".Trash" || name == ".Trash-" + QByteArray::number(::geteuid());
    });
}

/// Why nothing in a directory can be moved that could not be opened for `error`.
KeptBecause reasonFor(int error)
{
    if (error == ENOENT || error == ENOTDIR)
        return KeptBecause::Vanished;
    if (error == EPERM)
        return KeptBecause::OthersPath;
    return error == EACCES ? KeptBecause::NotOwn : KeptBecause::Unreadable;
}

/// The directory of an entry.
struct Parent
{
    QByteArray named;                               ///< Its path as it was given.
    KeptBecause keptBecause = KeptBecause::Nothing; ///< Why nothing in it can be moved.
    std::shared_ptr<const SourceDirectory> source;  ///< None where it could not be opened.
};

Parent openParent(const QByteArray& path)
{
    const auto source = SourceDirectory::open(path);
    if (!source)
        return {path, reasonFor(source.error()), nullptr};
    if (isTempAroundHome((*source)->handle.get()))
        return {path, KeptBecause::HomeAsTemp, *source};
    const bool isTrash = isInTrash((*source)->path);
    return {path, isTrash ? KeptBecause::SystemPlace : KeptBecause::Nothing, *source};
}

/// One call: entries are judged one by one and moved in batches.
class BatchedMove
{
public:
    explicit BatchedMove(FilesInUse inUse) : m_judge(std::move(inUse), protectedPaths()) {}

    void add(const QString& path);
    OpResult finish();

private:
    bool isEntangled(const QByteArray& path) const;
    void moveBatch();
    void addKept(KeptBecause reason);

    TrashMover m_mover; // first: the judge shall know the trash that it makes
    MoveJudge m_judge;
    platform::RecycleTally m_tally;
    std::vector<TrashCandidate> m_batch;
    qint64 m_bytes = 0; ///< In the batch; counts no entry for more than fills it.
    Parent m_parent;    ///< The one opened last.
};

/// Whether the entry at `path` is one of the batch, lies in one or holds one.
bool BatchedMove::isEntangled(const QByteArray& path) const
{
    const QByteArray below = path + '/';
    return std::any_of(m_batch.cbegin(), m_batch.cend(), [&](const TrashCandidate& candidate) {
        const QByteArray other = candidate.path() + '/';
        return other.startsWith(below) || below.startsWith(other);
    });
}

void BatchedMove::add(const QString& path)
{
    QByteArray bytes = QFile::encodeName(path);
    while (bytes.endsWith('/'))
        bytes.chop(1);
    const qsizetype slash = bytes.lastIndexOf('/');
    const QByteArray name = bytes.sliced(slash + 1);
    if (!bytes.startsWith('/') || name == "." || name == ".." || bytes.contains('\0'))
        return m_tally.addSkipped(QStringLiteral("路径无效"));
    const QByteArray directory = slash == 0 ? QByteArray("/") : bytes.first(slash);
    if (directory != m_parent.named)
        m_parent = openParent(directory);
    if (m_parent.source && isEntangled(m_parent.source->pathOf(name))) {
        moveBatch();
        m_parent = openParent(directory);
    }
    if (m_parent.keptBecause != KeptBecause::Nothing)
        return addKept(m_parent.keptBecause);

    const SourceDirectory& source = *m_parent.source;
    const MoveVerdict verdict =
        m_judge.judge(source.handle.get(), name.constData(), source.pathOf(name));
    if (verdict.keptBecause != KeptBecause::Nothing)
        return addKept(verdict.keptBecause);
    m_bytes += std::min(verdict.bytes, batchBytes);
    m_batch.push_back({m_parent.source, name, verdict, Outcome::Pending, {}, {}, {}});
    if (m_batch.size() >= batchSize || m_bytes >= batchBytes)
        moveBatch();
}

void BatchedMove::moveBatch()
{
    m_mover.move(m_batch);
    for (const TrashCandidate& candidate : m_batch) {
        if (candidate.outcome == Outcome::Kept)
            m_tally.addSkipped(candidate.why);
        else if (candidate.outcome == Outcome::MovedInPart)
            m_tally.addMovedInPart();
        else if (candidate.outcome != Outcome::Vanished)
            m_tally.addMoved();
    }
    m_batch.clear();
    m_bytes = 0;
}

void BatchedMove::addKept(KeptBecause reason)
{
    if (reason != KeptBecause::Vanished)
        m_tally.addSkipped(keptBecauseText(reason));
}

OpResult BatchedMove::finish()
{
    moveBatch();
    return m_tally.result();
}

} // namespace

} // namespace linux_platform

OpResult platform::moveToRecycleBin(const QList<QString>& paths)
{
    using namespace linux_platform;
    OrErrno<FilesInUse> inUse = FilesInUse::look();
    if (!inUse)
        return {false, QStringLiteral("无法确定哪些文件正在使用, 未移动任何内容: %1")
                           .arg(qt_error_string(inUse.error()))};
    BatchedMove move(std::move(*inUse));
    for (const QString& path : paths)
        move.add(path);
    return move.finish();
}

} // namespace korvane
