#pragma once
// An IDispatch that counts its references (and is never deleted by them) and the names it is
// asked for; it knows one: "Known", at id 7.

#include <windows.h>
#include <oaidl.h>

class CCountingDispatch : public IDispatch {
public:
    LONG References() const { return references; }
    LONG NameLookups() const { return nameLookups; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        const bool known = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch);
        *out = known ? static_cast<IDispatch*>(this) : nullptr;
        if (known)
            AddRef();
        return known ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&references); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&references); }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override
    {
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        InterlockedIncrement(&nameLookups);
        if (count != 1 || lstrcmpiW(names[0], L"Known") != 0)
            return DISP_E_UNKNOWNNAME;
        ids[0] = 7;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return DISP_E_MEMBERNOTFOUND;
    }

private:
    volatile LONG references = 1;  // its creator's
    volatile LONG nameLookups = 0;
};
