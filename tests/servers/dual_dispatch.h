#pragma once
// The IDispatch side of the fixtures' dual interfaces, answered by the
// platform's dispatch from their type information in the server file, and a
// base that counts its references and the server's live objects.

#include <windows.h>
#include <oleauto.h>

#include <type_traits>

#include "platform/platform_handles.h"
#include "tests/servers/call_fixture_objects.h"

// The side a client sees, and the virtual table side DispInvoke calls through.
struct DualTypeInfo {
    MetaObj::ComPtr<ITypeInfo> dispatch;
    MetaObj::ComPtr<ITypeInfo> vtable;
};

// Both sides from the library of the given TYPELIB resource; empty when either can't be had.
inline DualTypeInfo LoadDualTypeInfo(int resource, REFIID iid)
{
    wchar_t path[MAX_PATH + 12];
    MetaObj::ComPtr<ITypeLib> library;
    DualTypeInfo info;
    HREFTYPE reference = 0;
    if (!ServerLibraryPath(resource, path, MAX_PATH + 12) ||
        FAILED(LoadTypeLibEx(path, REGKIND_NONE, library.Put())) ||
        FAILED(library->GetTypeInfoOfGuid(iid, info.dispatch.Put())) ||
        FAILED(info.dispatch->GetRefTypeOfImplType(-1, &reference)) ||
        FAILED(info.dispatch->GetRefTypeInfo(reference, info.vtable.Put())))
        return {};
    return info;
}

// Base is Interface itself or a class that answers IUnknown for it.
template <typename Interface, typename Base = Interface>
class CDualDispatch : public Base {
public:
    bool Ready() const { return static_cast<bool>(types.vtable); }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return count ? (*count = 1, S_OK) : E_POINTER; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** info) override
    {
        if (info == nullptr)
            return E_POINTER;
        *info = index == 0 ? MetaObj::ComPtr<ITypeInfo>(types.dispatch).Detach() : nullptr;
        return index == 0 ? S_OK : DISP_E_BADINDEX;
    }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        return DispGetIDsOfNames(types.vtable.Get(), names, count, ids);
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO* exception, UINT* argumentError) override
    {
        if (!IsEqualIID(iid, IID_NULL))
            return DISP_E_UNKNOWNINTERFACE;
        return DispInvoke(static_cast<Interface*>(this), types.vtable.Get(), id, flags, params, result, exception,
                          argumentError);
    }

protected:
    explicit CDualDispatch(int resource) : types(LoadDualTypeInfo(resource, __uuidof(Interface))) {}

    DualTypeInfo types;
};

// A true count of references, and the fixture's count of live objects that
// its server reports; answers IUnknown, Interface and IDispatch if it is one.
template <typename Interface, volatile LONG& live>
class CCounted : public Interface {
public:
    CCounted(const CCounted&) = delete;
    CCounted& operator=(const CCounted&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        const bool answers = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(Interface)) ||
                             (std::is_base_of<IDispatch, Interface>::value && IsEqualIID(iid, IID_IDispatch));
        *out = answers ? static_cast<Interface*>(this) : nullptr;
        if (!answers)
            return E_NOINTERFACE;
        this->AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&references); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = InterlockedDecrement(&references);
        if (left == 0)
            delete this;
        return left;
    }

protected:
    CCounted() { InterlockedIncrement(&live); }
    virtual ~CCounted() { InterlockedDecrement(&live); }

private:
    volatile LONG references = 1;  // the creator's
};

// The fixtures' objects: a true count of references, the fixture's count of
// live objects, and IDispatch answered from the type information of resource.
template <typename Interface, volatile LONG& live>
class CCountedDual : public CDualDispatch<Interface, CCounted<Interface, live>> {
protected:
    explicit CCountedDual(int resource) : CDualDispatch<Interface, CCounted<Interface, live>>(resource) {}
};
