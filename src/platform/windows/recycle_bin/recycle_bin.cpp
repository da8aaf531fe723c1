// Moves files and directories to the recycle bin by the shell, and to nowhere else.
#include "platform/recycle_bin.h"

#include "base/watchdog.h"
#include "platform/paths.h"
#include "platform/portable/recycle_tally.h"
#include "platform/windows/paths/drive_path.h"
#include "platform/windows/recycle_bin/bin_of_drive.h"
#include "platform/windows/recycle_bin/delete_sink.h"
#include "platform/windows/recycle_bin/examined_entry.h"
#include "platform/windows/recycle_bin/kept_places.h"
#include "platform/windows/sys/com.h"
#include "platform/windows/sys/text.h"

#include <QDir>

#include <string>
#include <system_error>
#include <thread>

#include <shellapi.h>
#include <sherrors.h>
#include <shlobj.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

constexpr DWORD silently =
    FOF_ALLOWUNDO | FOF_NOCONFIRMATION | FOF_NOERRORUI | FOF_SILENT | FOF_NO_CONNECTED_ELEMENTS;

/// One operation of the shell on the entry at `path`. E_NOTIMPL where there is none, as in Wine.
HRESULT deleteByOperation(const QString& path, DeleteSink& sink)
{
    HRESULT result = E_FAIL;
    const auto item = comResult<IShellItem>([&path, &result](IShellItem** made) {
        result = SHCreateItemFromParsingName(wide(path), nullptr, __uuidof(IShellItem),
                                             reinterpret_cast<void**>(made));
        return result;
    });
    if (!item)
        return result;
    const auto operation = makeObject<IFileOperation>(CLSID_FileOperation);
    if (!operation)
        return REGDB_E_CLASSNOTREG;
    result = operation->SetOperationFlags(silently | FOFX_RECYCLEONDELETE | FOFX_EARLYFAILURE);
    if (SUCCEEDED(result))
        result = operation->DeleteItem(item.get(), &sink);
    return SUCCEEDED(result) ? operation->PerformOperations() : result;
}

/// The older interface. What the bin cannot take, it asks about rather than deletes for good.
bool deleteByFileOperation(const QString& path)
{
    const QString list = path + QChar::Null; // ended by two, one of which each text has
    SHFILEOPSTRUCTW operation{};
    operation.wFunc = FO_DELETE;
    operation.pFrom = wide(list);
    operation.fFlags = static_cast<FILEOP_FLAGS>(silently | FOF_WANTNUKEWARNING);
    return SHFileOperationW(&operation) == 0 && operation.fAnyOperationsAborted == FALSE;
}

/// keptBecauseOf() a failure of the shell.
QString keptBecauseOfShell(HRESULT error)
{
    switch (error) {
    case COPYENGINE_E_SHARING_VIOLATION_SRC:
        return u"正在使用"_s;
    case COPYENGINE_E_ACCESS_DENIED_SRC:
    case COPYENGINE_E_ACCESSDENIED_READONLY:
    case COPYENGINE_E_REQUIRES_ELEVATION:
        return u"无权限"_s;
    case COPYENGINE_E_RECYCLE_FORCE_NUKE:
    case COPYENGINE_E_RECYCLE_SIZE_TOO_BIG:
    case COPYENGINE_E_RECYCLE_PATH_TOO_LONG:
    case COPYENGINE_E_RECYCLE_BIN_NOT_FOUND:
        return u"回收站无法接收"_s;
    default:
        return HRESULT_FACILITY(error) == FACILITY_WIN32
                   ? keptBecauseOf(static_cast<DWORD>(HRESULT_CODE(error)))
                   : u"移动失败: %1"_s.arg(errorText(static_cast<DWORD>(error)));
    }
}

/// One call, on a thread of its own: entries are moved one by one, as one that fails ends an operation.
class EntryMover
{
public:
    void add(const QString& path);
    OpResult result() const { return m_tally.result(); }

private:
    QString whyInvalid(const QString& path);
    void move(const QString& path);

    platform::RecycleTally m_tally;
    KeptPlaces m_kept;
    QString m_parent;       ///< The directory that was judged last.
    QString m_parentsFault; ///< Why nothing in it can be moved.
    bool m_hasNoOperation = false;
};

/// Why the entry at `path`, in the system's own form, cannot be one to move.
QString EntryMover::whyInvalid(const QString& path)
{
    const QString parent = parentPath(path);
    if (parent == path)
        return u"路径无效"_s;
    if (path.size() >= MAX_PATH) // which neither interface takes
        return u"路径过长"_s;
    if (parent != m_parent) {
        m_parent = parent;
        m_parentsFault =
            platform::isLocalPath(parent) ? m_kept.whyNothingIn(parent) : u"不在本机磁盘上"_s;
    }
    return m_parentsFault.isEmpty() ? m_kept.whyNot(path) : m_parentsFault;
}

void EntryMover::add(const QString& path)
{
    Watchdog::step();
    QString native = QDir::toNativeSeparators(path);
    while (native.endsWith(u'\\'))
        native.chop(1);
    // What the system would name in another way would be another entry: "x." is "x" to the shell.
    if (native.isEmpty() || drivePath(native) != native)
        return m_tally.addSkipped(u"路径无效"_s);
    const QString invalid = whyInvalid(native);
    if (!invalid.isEmpty())
        return m_tally.addSkipped(invalid);
    const ExaminedEntry entry = examineEntry(native);
    if (entry.isGone)
        return;
    const QString kept =
        entry.keptBecause.isEmpty() ? whyBinCannotTake(m_parent, entry.bytes) : entry.keptBecause;
    if (!kept.isEmpty())
        return m_tally.addSkipped(kept);
    move(native);
}

void EntryMover::move(const QString& path)
{
    const auto sink = DeleteSink::make();
    HRESULT result = m_hasNoOperation ? E_NOTIMPL : deleteByOperation(path, *sink);
    m_hasNoOperation = result == E_NOTIMPL;
    if (m_hasNoOperation) {
        if (!isBinThere(m_parent))
            return m_tally.addSkipped(u"回收站不可用"_s);
        if (m_kept.isLink(path)) // Wine would move what it leads to.
            return m_tally.addSkipped(u"是链接"_s);
        return deleteByFileOperation(path) ? m_tally.addMoved() : m_tally.addSkipped(u"移动失败"_s);
    }
    if (sink->hasRefused())
        return m_tally.addSkipped(u"回收站无法接收"_s);
    if (sink->deleted() > 0)
        return m_tally.addSkipped(u"被系统直接删除"_s);
    result = FAILED(sink->error()) ? sink->error() : result;
    if (sink->recycled() > 0)
        return SUCCEEDED(result) ? m_tally.addMoved() : m_tally.addMovedInPart();
    if (SUCCEEDED(result))
        return m_tally.addSkipped(u"移动失败"_s);
    const QString why = keptBecauseOfShell(result);
    if (!why.isEmpty())
        m_tally.addSkipped(why);
}

OpResult moveAll(const QList<QString>& paths)
{
    const ComApartment apartment;
    if (!apartment.isReady())
        return {false, u"回收站不可用, 未移动任何内容"_s};
    EntryMover mover;
    for (const QString& path : paths)
        mover.add(path);
    return mover.result();
}

} // namespace

} // namespace windows_platform

OpResult platform::moveToRecycleBin(const QList<QString>& paths)
{
    // The shell runs a message loop, in which the caller's events would be handled.
    OpResult result{false, u"回收站不可用, 未移动任何内容"_s};
    try {
        std::thread([&] { result = windows_platform::moveAll(paths); }).join();
    } catch (const std::system_error&) { // no thread is to be had
    }
    return result;
}

} // namespace korvane
