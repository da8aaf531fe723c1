// What the shell tells of a deletion, and may be told: the way to refuse one that is for good.
#pragma once

#include "platform/windows/sys/com.h"

#include <atomic>

#include <shobjidl.h>

namespace korvane::windows_platform {

/// Watches one operation of IFileOperation that is to move entries to the recycle bin. The shell, when
/// silenced, deletes for good what the bin cannot take: the sink cancels the operation before that, and
/// after the first entry that could not be deleted.
class DeleteSink final : public IFileOperationProgressSink
{
public:
    /// With one reference, the caller's.
    static ComPtr<DeleteSink> make() { return ComPtr<DeleteSink>(new DeleteSink); }

    int recycled() const { return m_recycled; }   ///< Entries that are in the bin now.
    int deleted() const { return m_deleted; }     ///< Entries that are gone, and not in the bin.
    bool hasRefused() const { return m_refused; } ///< Whether the bin could not take an entry.
    HRESULT error() const { return m_error; }     ///< The first entry's that failed, or S_OK.

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override;

    HRESULT STDMETHODCALLTYPE PreDeleteItem(DWORD flags, IShellItem* item) override;
    HRESULT STDMETHODCALLTYPE PostDeleteItem(DWORD flags, IShellItem* item, HRESULT result,
                                             IShellItem* newlyCreated) override;

    // Of no use here.
    // clang-format off
    HRESULT STDMETHODCALLTYPE StartOperations() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE FinishOperations(HRESULT) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PreRenameItem(DWORD, IShellItem*, LPCWSTR) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PostRenameItem(DWORD, IShellItem*, LPCWSTR, HRESULT, IShellItem*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PreMoveItem(DWORD, IShellItem*, IShellItem*, LPCWSTR) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PostMoveItem(DWORD, IShellItem*, IShellItem*, LPCWSTR, HRESULT, IShellItem*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PreCopyItem(DWORD, IShellItem*, IShellItem*, LPCWSTR) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PostCopyItem(DWORD, IShellItem*, IShellItem*, LPCWSTR, HRESULT, IShellItem*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PreNewItem(DWORD, IShellItem*, LPCWSTR) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PostNewItem(DWORD, IShellItem*, LPCWSTR, LPCWSTR, DWORD, HRESULT, IShellItem*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE UpdateProgress(UINT, UINT) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE ResetTimer() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PauseTimer() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE ResumeTimer() override { return S_OK; }
    // clang-format on

private:
    DeleteSink() = default;
    ~DeleteSink() = default;

    std::atomic<ULONG> m_references = 1;
    int m_recycled = 0;
    int m_deleted = 0;
    bool m_refused = false;
    HRESULT m_error = S_OK;
};

} // namespace korvane::windows_platform
