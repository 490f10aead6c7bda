#pragma once
// Raw IDispatch calls for tests: an owner for a VARIANT, and a call by member
// name with the arguments in the order of the parameters.

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

private:
    VARIANT value;
};

// The arguments are shallow copies: the caller keeps owning what they hold.
inline HRESULT CallByName(IDispatch* object, const wchar_t* name, WORD flags, std::vector<VARIANT> arguments,
                          VARIANT* result = nullptr)
{
    std::reverse(arguments.begin(), arguments.end());
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    DISPPARAMS params{arguments.empty() ? nullptr : arguments.data(), nullptr, static_cast<UINT>(arguments.size()),
                      0};
    UINT argumentError = 0;
    return object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, nullptr, &argumentError);
}
