// COM for the duration of a call.
#pragma once

#include <memory>

#include <windows.h>

#include <objbase.h>
#include <oleauto.h>

namespace korvane::windows_platform {

/// COM on the calling thread, in a single-threaded apartment unless another is there already.
class ComApartment
{
public:
    ComApartment()
        : m_result(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE))
    {
    }
    ~ComApartment()
    {
        if (SUCCEEDED(m_result))
            CoUninitialize();
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    ComApartment(ComApartment&&) = delete;
    ComApartment& operator=(ComApartment&&) = delete;

    /// Whether COM can be used on this thread: it can where another apartment was there already.
    bool isReady() const { return SUCCEEDED(m_result) || m_result == RPC_E_CHANGED_MODE; }

private:
    HRESULT m_result;
};

struct ReleaseInterface
{
    void operator()(IUnknown* object) const { object->Release(); }
};

/// A reference to a COM object. Must not outlive the apartment.
template <typename Interface> using ComPtr = std::unique_ptr<Interface, ReleaseInterface>;

/// Fills a ComPtr through an out-parameter: `call(&raw)` returns the HRESULT. Null on failure.
template <typename Interface, typename Call> ComPtr<Interface> comResult(Call call)
{
    Interface* object = nullptr;
    const HRESULT result = call(&object);
    ComPtr<Interface> owner(object);
    return SUCCEEDED(result) ? std::move(owner) : nullptr;
}

/// An object of the class `id`, in this process or out of it; null where it cannot be made.
template <typename Interface> ComPtr<Interface> makeObject(REFCLSID id)
{
    return comResult<Interface>([&id](Interface** object) {
        return CoCreateInstance(id, nullptr, CLSCTX_ALL, __uuidof(Interface),
                                reinterpret_cast<void**>(object));
    });
}

struct FreeText
{
    void operator()(wchar_t* text) const { SysFreeString(text); }
};

/// A BSTR.
using ComText = std::unique_ptr<wchar_t, FreeText>;

} // namespace korvane::windows_platform
