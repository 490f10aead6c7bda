#pragma once
// Raw IDispatch calls for tests: owners for a VARIANT and an EXCEPINFO, and a
// call by member name with the arguments in the order of the parameters.

#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <vector>

class ScopedVariant {
public:
    ScopedVariant() { VariantInit(&value); }
    ~ScopedVariant() { VariantClear(&value); }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;

    VARIANT* Get() { return &value; }
    const VARIANT* Get() const { return &value; }
    VARIANT* operator->() { return &value; }
    // Clears what was held first.
    VARIANT* Receive()
    {
        VariantClear(&value);
        return &value;
    }

private:
    VARIANT value;
};

class ScopedExcepInfo {
public:
    ScopedExcepInfo() = default;
    ~ScopedExcepInfo() { Clear(); }
    ScopedExcepInfo(const ScopedExcepInfo&) = delete;
    ScopedExcepInfo& operator=(const ScopedExcepInfo&) = delete;

    EXCEPINFO* Get() { return &info; }
    EXCEPINFO* operator->() { return &info; }
    void Clear()
    {
        SysFreeString(info.bstrSource);
        SysFreeString(info.bstrDescription);
        SysFreeString(info.bstrHelpFile);
        info = EXCEPINFO{};
    }

private:
    EXCEPINFO info{};
};

inline DISPID DispatchIdOf(IDispatch* object, const wchar_t* name)
{
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    return id;
}

// The arguments are shallow copies: the caller keeps owning what they hold.
// A property put names its last argument DISPID_PROPERTYPUT, as a caller must.
inline HRESULT CallByName(IDispatch* object, const wchar_t* name, WORD flags, std::vector<VARIANT> arguments,
                          VARIANT* result = nullptr, EXCEPINFO* exception = nullptr)
{
    std::reverse(arguments.begin(), arguments.end());
    DISPID put = DISPID_PROPERTYPUT;
    const bool isPut = (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) != 0;
    DISPPARAMS params{arguments.empty() ? nullptr : arguments.data(), isPut ? &put : nullptr,
                      static_cast<UINT>(arguments.size()), isPut ? 1u : 0u};
    UINT argumentError = 0;
    return object->Invoke(DispatchIdOf(object, name), IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result,
                          exception, &argumentError);
}

inline VARIANT MakeVariant(VARTYPE type, void* reference)
{
    VARIANT value;
    VariantInit(&value);
    V_VT(&value) = type;
    V_BYREF(&value) = reference;
    return value;
}
