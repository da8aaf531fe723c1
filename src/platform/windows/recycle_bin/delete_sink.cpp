// Judges by the flags that the shell passes.
#include "platform/windows/recycle_bin/delete_sink.h"

#include "base/watchdog.h"

#include <sherrors.h>

namespace korvane::windows_platform {

HRESULT DeleteSink::QueryInterface(REFIID id, void** object)
{
    if (object == nullptr)
        return E_POINTER;
    *object = nullptr;
    if (id != __uuidof(IUnknown) && id != __uuidof(IFileOperationProgressSink))
        return E_NOINTERFACE;
    *object = static_cast<IFileOperationProgressSink*>(this);
    AddRef();
    return S_OK;
}

ULONG DeleteSink::Release()
{
    const ULONG references = --m_references;
    if (references == 0)
        delete this;
    return references;
}

HRESULT DeleteSink::PreDeleteItem(DWORD flags, IShellItem* /*item*/)
{
    Watchdog::step();
    if ((flags & TSF_DELETE_RECYCLE_IF_POSSIBLE) == 0)
        m_refused = true;
    return m_refused || FAILED(m_error) ? E_ABORT : S_OK;
}

HRESULT DeleteSink::PostDeleteItem(DWORD /*flags*/, IShellItem* /*item*/, HRESULT result,
                                   IShellItem* newlyCreated)
{
    if (FAILED(result))
        m_error = FAILED(m_error) ? m_error : result;
    else if (newlyCreated != nullptr)
        ++m_recycled;
    else if (result != COPYENGINE_S_USER_IGNORED)
        ++m_deleted;
    return S_OK;
}

} // namespace korvane::windows_platform
