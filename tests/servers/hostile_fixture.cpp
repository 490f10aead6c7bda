// The hostile fixture: a plain IDispatch, described by the library, whose Invoke breaks the rules by hand.

#include <windows.h>
#include <oleauto.h>

#include <initguid.h>  // the hostile library's identifiers are defined here, once

#include "hostile_fixture.h"  // widl's header of hostile_fixture.idl

#include <cstring>
#include <cwchar>
#include <stdexcept>
#include <vector>

#include "tests/servers/dual_dispatch.h"
#include "tests/servers/hostile_fixture_objects.h"
#include "tests/servers/hostile_fixture_values.h"

using MetaObj::ComPtr;
using namespace HostileValues;

namespace {

volatile LONG g_liveObjects = 0;
volatile LONG g_failQueryEvery = 0;
volatile LONG g_queries = 0;

// The i-th argument from the first; null when there are fewer.
VARIANT* Argument(DISPPARAMS* params, UINT index)
{
    return params && index < params->cArgs ? &params->rgvarg[params->cArgs - 1 - index] : nullptr;
}

LONG LongArgument(DISPPARAMS* params, UINT index)
{
    VARIANT copy = {};
    VARIANT* argument = Argument(params, index);
    return argument && SUCCEEDED(VariantChangeType(&copy, argument, 0, VT_I4)) ? copy.lVal : -100;
}

// A cell of the given by-reference type, or null.
void* Cell(DISPPARAMS* params, UINT index, VARTYPE type)
{
    VARIANT* argument = Argument(params, index);
    return argument && argument->vt == (type | VT_BYREF) ? argument->byref : nullptr;
}

class CHostileFixture final : public CDualDispatch<IDispatch, CCounted<IDispatch, g_liveObjects>> {
public:
    CHostileFixture() : CDualDispatch(kHostileLibraryResource)
    {
        types = LoadDualTypeInfo(kHostileLibraryResource, IID_IHostileFixture);
    }
    ~CHostileFixture() override { SafeArrayDestroy(cellArray); }  // a null one is refused, harmlessly

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out != nullptr && InterlockedExchange(&throwOnQuery, 0) != 0)
            throw std::runtime_error("HostileFixture.QueryInterface");
        const HRESULT hr = CCounted::QueryInterface(iid, out);
        if (FAILED(hr) || g_failQueryEvery <= 0 || InterlockedIncrement(&g_queries) % g_failQueryEvery != 0)
            return hr;
        Release();
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override
    {
        if (names && count > 0 && names[0] && _wcsicmp(names[0], kThrowingName) == 0)
            throw std::runtime_error("HostileFixture.GetIDsOfNames");
        return CDualDispatch::GetIDsOfNames(iid, names, count, lcid, ids);
    }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result, EXCEPINFO*,
                                     UINT*) override
    {
        VARIANT ignored = {};
        VARIANT& out = result ? *result : ignored;
        const LONG number = LongArgument(params, 0);
        switch (id) {
        case 1:  // FailQueryEvery, a put that also restarts the count
            InterlockedExchange(&g_failQueryEvery, number);
            InterlockedExchange(&g_queries, 0);
            return S_OK;
        case 3:
            return Garbage(params);
        case 7:  // FailWithResult: against COM's advice, but valid: the caller clears it.
            out.vt = VT_BSTR;
            out.bstrVal = SysAllocString(L"left behind");
            return E_FAIL;
        case 8:  // GarbageOut: a text out cell is freed after every call, so only a valid one can stand there.
            if (auto* text = static_cast<BSTR*>(Cell(params, 0, VT_BSTR)))
                *text = SysAllocString(L"left behind");
            if (auto* object = static_cast<IDispatch**>(Cell(params, 1, VT_DISPATCH)))
                *object = reinterpret_cast<IDispatch*>(kGarbage);
            return E_FAIL;
        case 10:
            return GiveType(number, out);
        case 11:
            return GiveArray(number, out);
        case 12:  // GiveText; kNullText leaves a null BSTR
            out.vt = VT_BSTR;
            if (number == kEmbeddedNul)
                out.bstrVal = SysAllocStringLen(L"a\0b", 3);
            else if (number == kOddBytes)
                out.bstrVal = SysAllocStringByteLen("abc", 3);
            else if (number == kLongText && (out.bstrVal = SysAllocStringLen(nullptr, kLongTextLength)) != nullptr)
                std::wmemset(out.bstrVal, L'x', kLongTextLength);
            return S_OK;
        case 14:  // Throw
            if (number != kThrowInQueryInterface)
                throw std::runtime_error("HostileFixture.Invoke");
            InterlockedExchange(&throwOnQuery, 1);
            return S_OK;
        case 15:  // Swallow
            out.vt = VT_I4;
            out.lVal = params ? static_cast<LONG>(params->cArgs) : 0;
            return S_OK;
        default:
            return DISP_E_MEMBERNOTFOUND;
        }
    }

private:
    // Garbage(freeFirst, cell), as hostile_fixture_values.h says: a BSTR, VARIANT, IDispatch* or array cell.
    static HRESULT Garbage(DISPPARAMS* params)
    {
        VARIANT* argument = Argument(params, 1);
        const VARTYPE type = argument ? VARTYPE(argument->vt & ~VT_BYREF) : VARTYPE(VT_EMPTY);
        const bool known = type == VT_BSTR || type == VT_VARIANT || type == VT_DISPATCH || type == (VT_ARRAY | VT_I4);
        if (!known || !(argument->vt & VT_BYREF))
            return DISP_E_TYPEMISMATCH;
        void* cell = argument->byref;
        const LONG freeFirst = LongArgument(params, 0);
        VARIANT owner;  // frees, releases or destroys by its type
        owner.vt = type;
        owner.byref = *static_cast<void**>(cell);
        if (freeFirst)
            VariantClear(type == VT_VARIANT ? static_cast<VARIANT*>(cell) : &owner);
        if (type == VT_VARIANT) {
            static_cast<VARIANT*>(cell)->vt = VT_BSTR;
            static_cast<VARIANT*>(cell)->bstrVal = reinterpret_cast<BSTR>(kGarbage);
            return E_FAIL;
        }
        const bool valid = type == VT_BSTR && freeFirst == 2;
        *static_cast<void**>(cell) = valid ? SysAllocString(L"replaced") : reinterpret_cast<void*>(kGarbage);
        return E_FAIL;
    }

    HRESULT GiveType(LONG asked, VARIANT& out)
    {
        // A reader that follows by-reference VARIANTs never comes back from this one.
        self.vt = VT_BYREF | VT_VARIANT;
        self.pvarVal = &self;
        const auto vt = static_cast<VARTYPE>(asked == kNullByRef ? VT_BYREF | VT_I4 : asked == kSelfByRef ? self.vt : asked);
        out.vt = vt;
        if (asked < 0) {
            out.byref = asked == kSelfByRef ? &self : nullptr;
        } else if (vt & VT_BYREF) {  // the cell stays the object's
            out.byref = (vt & VT_ARRAY) ? static_cast<void*>(&cellArray) : static_cast<void*>(byRefCell);
        } else if (vt & VT_ARRAY) {
            out.parray = SafeArrayCreateVector(vt & VT_TYPEMASK, 0, 2);
        } else if (vt == VT_BSTR) {
            out.bstrVal = SysAllocString(L"text");
        } else if (vt == VT_DISPATCH || vt == VT_UNKNOWN) {
            const HRESULT hr = CreateHostileFixture(IID_IDispatch, reinterpret_cast<void**>(&out.pdispVal));
            out.vt = SUCCEEDED(hr) ? vt : VARTYPE(VT_EMPTY);
            return hr;
        } else if (vt == VT_LPSTR || vt == VT_LPWSTR) {
            out.byref = vt == VT_LPSTR ? static_cast<void*>(const_cast<char*>("abc\0\0")) : const_cast<wchar_t*>(L"text");
        }
        return S_OK;  // otherwise the value bytes stay zero; a record has no information to clear
    }

    static HRESULT GiveArray(LONG shape, VARIANT& out)
    {
        SAFEARRAY* array = nullptr;
        if (shape == kManyDimensions) {
            std::vector<SAFEARRAYBOUND> bounds(0xFFFF, SAFEARRAYBOUND{1, 0});
            array = SafeArrayCreate(VT_I4, 0xFFFF, bounds.data());
        } else if (shape == kVariantHoldsItself) {
            VARIANT* element = nullptr;
            array = SafeArrayCreateVector(VT_VARIANT, 0, 1);
            SafeArrayAccessData(array, reinterpret_cast<void**>(&element));
            element->vt = VT_BYREF | VT_VARIANT;
            element->pvarVal = element;
            SafeArrayUnaccessData(array);
        } else if (shape == kBareAddresses) {
            static const void* const table[3] = {table, table, table};
            static const void* const notObject = table;
            SafeArrayAllocDescriptor(1, &array);
            array->cbElements = sizeof(void*);
            array->rgsabound[0] = {2, 0};
            SafeArrayAllocData(array);
            static_cast<const void**>(array->pvData)[0] = reinterpret_cast<const void*>(kGarbage);
            static_cast<const void**>(array->pvData)[1] = &notObject;
        } else if (shape != kNullArray) {
            // A descriptor that claims what no data stands behind.
            SafeArrayAllocDescriptorEx(VT_I4, shape == kOverflowingCount ? 2 : 1, &array);
            for (USHORT at = 0; at < array->cDims; ++at)
                array->rgsabound[at] = {shape == kOverflowingCount ? 0x10000UL : 0x80000000UL, 0};
            array->pvData = shape == kNoDimensions ? nullptr : CoTaskMemAlloc(16);
            if (array->pvData)
                std::memset(array->pvData, 0, 16);
            array->cDims = shape == kNoDimensions ? 0 : array->cDims;
        }
        out.vt = (shape == kVariantHoldsItself ? VT_VARIANT : shape == kBareAddresses ? VT_DISPATCH : VT_I4) | VT_ARRAY;
        out.parray = array;
        return S_OK;
    }

    volatile LONG throwOnQuery = 0;
    alignas(16) BYTE byRefCell[32] = {};  // what by-reference results point at: zeros, valid in every type
    SAFEARRAY* cellArray = nullptr;
    VARIANT self = {};
};

}  // namespace

HRESULT CreateHostileFixture(REFIID iid, void** out)
{
    *out = nullptr;
    auto* fixture = new CHostileFixture;
    auto owner = ComPtr<IDispatch>::Adopt(fixture);
    if (!fixture->Ready())
        return E_FAIL;
    return owner->QueryInterface(iid, out);
}

LONG LiveHostileObjects()
{
    return g_liveObjects;
}
