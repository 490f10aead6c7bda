#pragma once
// An IDispatch that counts its references and is never deleted by them, so a
// test can read the count after the code under test has let go of it. It also
// counts the names it is asked for, and knows one: "Known", at id 7.

#include <windows.h>
#include <oaidl.h>

class CCountingDispatch : public IDispatch {
public:
    LONG References() const { return references; }
    LONG NameLookups() const { return nameLookups; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch)) {
            *out = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
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
    // Starts at one: the reference its creator holds.
    volatile LONG references = 1;
    volatile LONG nameLookups = 0;
};
