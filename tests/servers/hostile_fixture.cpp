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

// Dispatch identifiers of hostile_fixture.idl.
enum Member : DISPID {
    kFailQueryEveryId = 1,
    kFailAllocationEveryId = 2,
    kGarbageTextId = 3,
    kGarbageVariantId = 4,
    kGarbageObjectId = 5,
    kGarbageArrayId = 6,
    kFailWithResultId = 7,
    kGarbageOutId = 8,
    kGiveTypeId = 10,
    kGiveArrayId = 11,
    kGiveTextId = 12,
    kMakeChildId = 13,
    kThrowId = 14,
    kSwallowId = 15,
};

struct MemberName {
    const wchar_t* name;
    DISPID id;
};
constexpr MemberName kMembers[] = {
    {L"FailQueryEvery", kFailQueryEveryId}, {L"FailAllocationEvery", kFailAllocationEveryId},
    {L"GarbageText", kGarbageTextId},       {L"GarbageVariant", kGarbageVariantId},
    {L"GarbageObject", kGarbageObjectId},   {L"GarbageArray", kGarbageArrayId},
    {L"FailWithResult", kFailWithResultId},   {L"GarbageOut", kGarbageOutId},
    {L"GiveType", kGiveTypeId},             {L"GiveArray", kGiveArrayId},
    {L"GiveText", kGiveTextId},             {L"MakeChild", kMakeChildId},
    {L"Throw", kThrowId},                   {L"Swallow", kSwallowId},
};

// Counts a call against the server-wide "fail every Nth" setting.
bool NthFails(volatile LONG& counter, LONG every)
{
    return every > 0 && InterlockedIncrement(&counter) % every == 0;
}

bool Allocate()
{
    return !NthFails(g_allocations, g_failAllocationEvery);
}

template <typename T>
T Garbage()
{
    return reinterpret_cast<T>(kGarbage);
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

class CHostileFixture final : public CDualDispatch<IHostileFixture> {
public:
    CHostileFixture() : CDualDispatch<IHostileFixture>(kHostileLibraryResource)
    {
        InterlockedIncrement(&g_liveObjects);
        std::memset(&byRefCell, 0, sizeof byRefCell);
        VariantInit(&self);
    }
    ~CHostileFixture()
    {
        if (cellArray)
            SafeArrayDestroy(cellArray);
        InterlockedDecrement(&g_liveObjects);
    }
    CHostileFixture(const CHostileFixture&) = delete;
    CHostileFixture& operator=(const CHostileFixture&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        if (InterlockedExchange(&throwOnQuery, 0) != 0)
            throw std::runtime_error("HostileFixture.QueryInterface");
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) &&
            !IsEqualIID(iid, IID_IHostileFixture))
            return E_NOINTERFACE;
        if (NthFails(g_queries, g_failQueryEvery))
            return E_NOINTERFACE;
        *out = static_cast<IHostileFixture*>(this);
        AddRef();
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

    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        if (!names || !ids || count != 1 || !names[0])
            return E_INVALIDARG;
        if (_wcsicmp(names[0], kThrowingName) == 0)
            throw std::runtime_error("HostileFixture.GetIDsOfNames");
        for (const MemberName& member : kMembers) {
            if (_wcsicmp(names[0], member.name) == 0) {
                ids[0] = member.id;
                return S_OK;
            }
        }
        ids[0] = DISPID_UNKNOWN;
        return DISP_E_UNKNOWNNAME;
    }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO*, UINT*) override
    {
        VARIANT ignored;
        VariantInit(&ignored);
        VARIANT& out = result ? *result : ignored;
        LONG number = 0;
        switch (id) {
        case kFailQueryEveryId:
            return Setting(g_failQueryEvery, g_queries, flags, params, out);
        case kFailAllocationEveryId:
            return Setting(g_failAllocationEvery, g_allocations, flags, params, out);
        case kGarbageTextId:
            return GarbageText(params);
        case kGarbageVariantId:
            return GarbageVariant(params);
        case kGarbageObjectId:
            return GarbageObject(params);
        case kGarbageArrayId:
            return GarbageArray(params);
        case kFailWithResultId:
            // Against COM's advice, but valid: the caller clears it.
            out.vt = VT_BSTR;
            out.bstrVal = SysAllocString(L"left behind");
            return E_FAIL;
        case kGarbageOutId:
            return GarbageOut(params);
        case kGiveTypeId:
            if (!LongArgument(params, 0, number))
                return DISP_E_BADPARAMCOUNT;
            return GiveType(number, out);
        case kGiveArrayId:
            if (!LongArgument(params, 0, number))
                return DISP_E_BADPARAMCOUNT;
            return GiveArray(number, out);
        case kGiveTextId:
            if (!LongArgument(params, 0, number))
                return DISP_E_BADPARAMCOUNT;
            return GiveText(number, out);
        case kMakeChildId:
            return GiveType(VT_DISPATCH, out);
        case kThrowId:
            if (!LongArgument(params, 0, number))
                return DISP_E_BADPARAMCOUNT;
            if (number == kThrowInQueryInterface) {
                InterlockedExchange(&throwOnQuery, 1);
                return S_OK;
            }
            throw std::runtime_error("HostileFixture.Invoke");
        case kSwallowId:
            out.vt = VT_I4;
            out.lVal = params ? static_cast<LONG>(params->cArgs) : 0;
            return S_OK;
        default:
            return DISP_E_MEMBERNOTFOUND;
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

    static bool FreeFirst(DISPPARAMS* params)
    {
        LONG value = 0;
        return LongArgument(params, 0, value) && value != 0;
    }
    // freeFirst 2: the text is freed and replaced by a valid one before failing.
    static bool ReplaceValid(DISPPARAMS* params)
    {
        LONG value = 0;
        return LongArgument(params, 0, value) && value == 2;
    }

    static HRESULT GarbageText(DISPPARAMS* params)
    {
        auto* cell = static_cast<BSTR*>(Cell(params, 1, VT_BSTR));
        if (!cell)
            return DISP_E_TYPEMISMATCH;
        if (FreeFirst(params))
            SysFreeString(*cell);
        *cell = ReplaceValid(params) ? SysAllocString(L"replaced") : Garbage<BSTR>();
        return E_FAIL;
    }
    static HRESULT GarbageVariant(DISPPARAMS* params)
    {
        auto* cell = static_cast<VARIANT*>(Cell(params, 1, VT_VARIANT));
        if (!cell)
            return DISP_E_TYPEMISMATCH;
        if (FreeFirst(params))
            VariantClear(cell);
        cell->vt = VT_BSTR;
        cell->bstrVal = Garbage<BSTR>();
        return E_FAIL;
    }
    static HRESULT GarbageObject(DISPPARAMS* params)
    {
        auto* cell = static_cast<IDispatch**>(Cell(params, 1, VT_DISPATCH));
        if (!cell)
            return DISP_E_TYPEMISMATCH;
        if (FreeFirst(params) && *cell)
            (*cell)->Release();
        *cell = Garbage<IDispatch*>();
        return E_FAIL;
    }
    static HRESULT GarbageArray(DISPPARAMS* params)
    {
        auto* cell = static_cast<SAFEARRAY**>(Cell(params, 1, VT_ARRAY | VT_I4));
        if (!cell)
            return DISP_E_TYPEMISMATCH;
        if (FreeFirst(params))
            SafeArrayDestroy(*cell);
        *cell = Garbage<SAFEARRAY*>();
        return E_FAIL;
    }
    // Out cells: by COM's rules they come in holding nothing of the callee's.
    static HRESULT GarbageOut(DISPPARAMS* params)
    {
        // A text out cell is freed after every call, so only a valid one can stand there.
        if (auto* text = static_cast<BSTR*>(Cell(params, 0, VT_BSTR)))
            *text = SysAllocString(L"left behind");
        if (auto* object = static_cast<IDispatch**>(Cell(params, 1, VT_DISPATCH)))
            *object = Garbage<IDispatch*>();
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
        BSTR text = nullptr;
        switch (which) {
        case kEmbeddedNul:
            text = SysAllocStringLen(kEmbeddedNulText, 3);
            break;
        case kOddBytes:
            text = SysAllocStringByteLen("abc", 3);
            break;
        case kNullText:
            break;
        case kLongText: {
            text = SysAllocStringLen(nullptr, kLongTextLength);
            if (text)
                std::wmemset(text, L'x', kLongTextLength);
            break;
        }
        default:
            return E_INVALIDARG;
        }
        if (which != kNullText && (!text || !Allocate())) {
            SysFreeString(text);
            return E_OUTOFMEMORY;
        }
        out.vt = VT_BSTR;
        out.bstrVal = text;
        return S_OK;
    }

    static constexpr char kNarrowText[] = "abc\0\0\0";

    volatile LONG references = 1;  // the creator's
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
