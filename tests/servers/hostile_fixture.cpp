// The hostile fixture's objects. Invoke answers every member by hand, since
// what they do to their arguments is what no type-driven dispatch would do.

#include <windows.h>
#include <oleauto.h>

// The identifiers of the hostile library are defined here, once.
#include <initguid.h>

#include "hostile_fixture.h"  // widl's header of hostile_fixture.idl

#include <cstring>
#include <cwchar>
#include <new>
#include <stdexcept>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/servers/collection_fixture_objects.h"
#include "tests/servers/dual_dispatch.h"
#include "tests/servers/hostile_fixture_objects.h"
#include "tests/servers/hostile_fixture_values.h"

using MetaObj::ComPtr;
using namespace HostileValues;

namespace {

volatile LONG g_liveObjects = 0;
volatile LONG g_failQueryEvery = 0;
volatile LONG g_queries = 0;
volatile LONG g_failAllocationEvery = 0;
volatile LONG g_allocations = 0;

// Counts a call against the server-wide "fail every Nth" setting.
bool NthFails(volatile LONG& counter, LONG every)
{
    return every > 0 && InterlockedIncrement(&counter) % every == 0;
}

bool Allocate()
{
    return !NthFails(g_allocations, g_failAllocationEvery);
}

// The i-th argument from the first; null when there are fewer.
VARIANT* Argument(DISPPARAMS* params, UINT index)
{
    if (!params || index >= params->cArgs)
        return nullptr;
    return &params->rgvarg[params->cArgs - 1 - index];
}

bool LongArgument(DISPPARAMS* params, UINT index, LONG& value)
{
    VARIANT* argument = Argument(params, index);
    if (!argument)
        return false;
    VARIANT copy;
    VariantInit(&copy);
    if (FAILED(VariantChangeType(&copy, argument, 0, VT_I4)))
        return false;
    value = copy.lVal;
    return true;
}

// A cell of the given by-reference type, or null.
void* Cell(DISPPARAMS* params, UINT index, VARTYPE type)
{
    VARIANT* argument = Argument(params, index);
    return argument && argument->vt == (type | VT_BYREF) ? argument->byref : nullptr;
}

class CHostileFixture final : public CDualDispatch<IHostileFixture, CCounted<IHostileFixture, g_liveObjects>> {
public:
    CHostileFixture() : CDualDispatch(kHostileLibraryResource)
    {
        std::memset(&byRefCell, 0, sizeof byRefCell);
        VariantInit(&self);
    }
    ~CHostileFixture() override
    {
        if (cellArray)
            SafeArrayDestroy(cellArray);
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out != nullptr && InterlockedExchange(&throwOnQuery, 0) != 0)
            throw std::runtime_error("HostileFixture.QueryInterface");
        const HRESULT hr = CCounted::QueryInterface(iid, out);
        if (FAILED(hr) || !NthFails(g_queries, g_failQueryEvery))
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

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO*, UINT*) override
    {
        VARIANT ignored;
        VariantInit(&ignored);
        VARIANT& out = result ? *result : ignored;
        LONG number = 0;
        switch (id) {
        case 1:  // FailQueryEvery
            return Setting(g_failQueryEvery, g_queries, flags, params, out);
        case 2:  // FailAllocationEvery
            return Setting(g_failAllocationEvery, g_allocations, flags, params, out);
        case 3:  // GarbageText, GarbageVariant, GarbageObject, GarbageArray
        case 4:
        case 5:
        case 6:
            return GarbageCell(id, params);
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
        case 13:  // MakeChild
            return GiveType(VT_DISPATCH, out);
        case 15:  // Swallow
            out.vt = VT_I4;
            out.lVal = params ? static_cast<LONG>(params->cArgs) : 0;
            return S_OK;
        default:
            break;
        }
        if (id < 10 || id > 14)
            return DISP_E_MEMBERNOTFOUND;
        if (!LongArgument(params, 0, number))
            return DISP_E_BADPARAMCOUNT;
        switch (id) {
        case 10:
            return GiveType(number, out);
        case 11:
            return GiveArray(number, out);
        case 12:
            return GiveText(number, out);
        default:  // 14, Throw
            if (number != kThrowInQueryInterface)
                throw std::runtime_error("HostileFixture.Invoke");
            InterlockedExchange(&throwOnQuery, 1);
            return S_OK;
        }
    }

    // The interface's own entries; Invoke never reaches them.
    HRESULT STDMETHODCALLTYPE get_FailQueryEvery(LONG*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE put_FailQueryEvery(LONG) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE get_FailAllocationEvery(LONG*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE put_FailAllocationEvery(LONG) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GarbageText(LONG, BSTR*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GarbageVariant(LONG, VARIANT*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GarbageObject(LONG, IDispatch**) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GarbageArray(LONG, SAFEARRAY**) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE FailWithResult(VARIANT*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GarbageOut(BSTR*, IDispatch**) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GiveType(LONG, VARIANT*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GiveArray(LONG, VARIANT*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE GiveText(LONG, BSTR*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE MakeChild(IDispatch**) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Throw(LONG) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Swallow(LONG*) override { return E_UNEXPECTED; }

private:
    // A put also restarts the count, so that "every Nth" counts from the put.
    static HRESULT Setting(volatile LONG& setting, volatile LONG& counter, WORD flags, DISPPARAMS* params,
                           VARIANT& out)
    {
        if (flags & DISPATCH_PROPERTYPUT) {
            LONG value = 0;
            if (!LongArgument(params, 0, value))
                return DISP_E_BADPARAMCOUNT;
            InterlockedExchange(&setting, value);
            InterlockedExchange(&counter, 0);
            return S_OK;
        }
        out.vt = VT_I4;
        out.lVal = setting;
        return S_OK;
    }

    // Garbage(3 to 6)(freeFirst, cell): fails with 0xdeadbeef left in the
    // in/out cell, after freeing what came in when freeFirst is set; a text
    // cell with freeFirst 2 gets a valid text instead.
    static HRESULT GarbageCell(DISPID id, DISPPARAMS* params)
    {
        static constexpr VARTYPE kCellTypes[] = {VT_BSTR, VT_VARIANT, VT_DISPATCH, VT_ARRAY | VT_I4};
        const VARTYPE type = kCellTypes[id - 3];
        void* cell = Cell(params, 1, type);
        LONG freeFirst = 0;
        if (!cell || !LongArgument(params, 0, freeFirst))
            return DISP_E_TYPEMISMATCH;
        if (type == VT_VARIANT) {
            auto* variant = static_cast<VARIANT*>(cell);
            if (freeFirst)
                VariantClear(variant);
            variant->vt = VT_BSTR;
            variant->bstrVal = reinterpret_cast<BSTR>(kGarbage);
            return E_FAIL;
        }
        auto* held = static_cast<void**>(cell);
        if (freeFirst) {
            VARIANT owner;  // frees, releases or destroys by its type
            owner.vt = type;
            owner.byref = *held;
            VariantClear(&owner);
        }
        *held = type == VT_BSTR && freeFirst == 2 ? SysAllocString(L"replaced") : reinterpret_cast<void*>(kGarbage);
        return E_FAIL;
    }

    HRESULT GiveType(LONG asked, VARIANT& out)
    {
        if (asked == kNullByRef) {
            out.vt = VT_BYREF | VT_I4;
            out.byref = nullptr;
            return S_OK;
        }
        if (asked == kSelfByRef) {
            // A VARIANT that refers to itself: a reader that follows by-reference
            // VARIANTs never comes back.
            self.vt = VT_BYREF | VT_VARIANT;
            self.pvarVal = &self;
            out.vt = VT_BYREF | VT_VARIANT;
            out.pvarVal = &self;
            return S_OK;
        }
        const auto vt = static_cast<VARTYPE>(asked);
        const VARTYPE base = vt & VT_TYPEMASK;
        out.vt = vt;
        if (vt & VT_BYREF) {
            // Zeros are a valid value of every type, and the cell stays the object's.
            out.byref = (vt & VT_ARRAY) ? static_cast<void*>(&cellArray) : static_cast<void*>(&byRefCell);
            return S_OK;
        }
        if (vt & VT_ARRAY) {
            out.parray = SafeArrayCreateVector(base, 0, 2);
            return S_OK;
        }
        switch (base) {
        case VT_BSTR:
            if (!Allocate())
                return E_OUTOFMEMORY;
            out.bstrVal = SysAllocString(L"text");
            return S_OK;
        case VT_DISPATCH:
        case VT_UNKNOWN: {
            if (!Allocate())
                return E_OUTOFMEMORY;
            IDispatch* child = nullptr;
            const HRESULT hr = CreateHostileFixture(IID_IDispatch, reinterpret_cast<void**>(&child));
            out.pdispVal = child;
            if (FAILED(hr))
                out.vt = VT_EMPTY;
            return hr;
        }
        case VT_LPSTR:
            out.byref = const_cast<char*>(kNarrowText);
            return S_OK;
        case VT_LPWSTR:
            out.byref = const_cast<wchar_t*>(L"text");
            return S_OK;
        default:
            // The value bytes stay zero; a record has no information to clear.
            return S_OK;
        }
    }

    HRESULT GiveArray(LONG shape, VARIANT& out)
    {
        SAFEARRAY* array = nullptr;
        switch (shape) {
        case kNoDimensions:
            if (FAILED(SafeArrayAllocDescriptorEx(VT_I4, 1, &array)))
                return E_OUTOFMEMORY;
            array->cDims = 0;
            break;
        case kManyDimensions: {
            std::vector<SAFEARRAYBOUND> bounds(0xFFFF, SAFEARRAYBOUND{1, 0});
            array = SafeArrayCreate(VT_I4, 0xFFFF, bounds.data());
            if (!array)
                return E_OUTOFMEMORY;
            break;
        }
        case kOverflowingCount:
        case kNegativeCount:
            // The descriptor claims what no data stands behind.
            if (FAILED(SafeArrayAllocDescriptorEx(VT_I4, shape == kOverflowingCount ? 2 : 1, &array)))
                return E_OUTOFMEMORY;
            for (USHORT at = 0; at < array->cDims; ++at)
                array->rgsabound[at] = {shape == kOverflowingCount ? 0x10000UL : 0x80000000UL, 0};
            array->pvData = CoTaskMemAlloc(16);
            std::memset(array->pvData, 0, 16);
            break;
        case kNullArray:
            break;
        case kVariantHoldsItself: {
            array = SafeArrayCreateVector(VT_VARIANT, 0, 1);
            if (!array)
                return E_OUTOFMEMORY;
            VARIANT* element = nullptr;
            SafeArrayAccessData(array, reinterpret_cast<void**>(&element));
            element->vt = VT_BYREF | VT_VARIANT;
            element->pvarVal = element;
            SafeArrayUnaccessData(array);
            break;
        }
        default:
            return E_INVALIDARG;
        }
        out.vt = (shape == kVariantHoldsItself ? VT_VARIANT : VT_I4) | VT_ARRAY;
        out.parray = array;
        return S_OK;
    }

    static HRESULT GiveText(LONG which, VARIANT& out)
    {
        if (which < kEmbeddedNul || which > kLongText)
            return E_INVALIDARG;
        BSTR text = nullptr;
        if (which == kEmbeddedNul)
            text = SysAllocStringLen(L"a\0b", 3);
        else if (which == kOddBytes)
            text = SysAllocStringByteLen("abc", 3);
        else if (which == kLongText && (text = SysAllocStringLen(nullptr, kLongTextLength)) != nullptr)
            std::wmemset(text, L'x', kLongTextLength);
        if (which != kNullText && (!text || !Allocate())) {
            SysFreeString(text);
            return E_OUTOFMEMORY;
        }
        out.vt = VT_BSTR;
        out.bstrVal = text;
        return S_OK;
    }

    static constexpr char kNarrowText[] = "abc\0\0\0";

    volatile LONG throwOnQuery = 0;
    // What by-reference results point at: zeros, a valid value of every type.
    union {
        VARIANT variant;
        DECIMAL decimal;
        BYTE bytes[32];
    } byRefCell;
    SAFEARRAY* cellArray = nullptr;
    VARIANT self;
};

}  // namespace

HRESULT CreateHostileFixture(REFIID iid, void** out)
{
    *out = nullptr;
    auto* fixture = new (std::nothrow) CHostileFixture;
    if (!fixture)
        return E_OUTOFMEMORY;
    auto owner = ComPtr<IHostileFixture>::Adopt(fixture);
    if (!fixture->Ready())
        return E_FAIL;
    return owner->QueryInterface(iid, out);
}

LONG LiveHostileObjects()
{
    return g_liveObjects;
}
