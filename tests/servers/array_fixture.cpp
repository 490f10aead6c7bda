// ArrayFixture: arrays that platform objects can't give, through type-driven
// dispatch on the server file's own array library (resource 3).

#include <algorithm>
#include <vector>

#include <windows.h>
#include <oleauto.h>

// The identifiers of the library are defined here, once.
#include <initguid.h>

#include "array_fixture.h"  // widl's header of array_fixture.idl

#include "tests/servers/array_fixture_objects.h"
#include "tests/servers/dual_dispatch.h"

namespace {

constexpr LONG kGrowExtra = 99;
volatile LONG g_live = 0;

class CArrayChild : public CCountedDual<IArrayFixtureChild, g_live> {
public:
    explicit CArrayChild(LONG id) : CCountedDual(kArrayLibraryResource), id(id) {}
    HRESULT STDMETHODCALLTYPE get_Id(LONG* value) override { return *value = id, S_OK; }

private:
    LONG id;
};

class CArrayFixture : public CCountedDual<IArrayFixture, g_live> {
public:
    CArrayFixture() : CCountedDual(kArrayLibraryResource) {}
    HRESULT STDMETHODCALLTYPE Echo(VARIANT value, VARIANT* result) override
    {
        SAFEARRAY* const got = value.vt == (VT_ARRAY | VT_DISPATCH) ? value.parray : nullptr;
        if (!got || (got->fFeatures & (FADF_DISPATCH | FADF_HAVEIID)))
            return VariantCopy(result, &value);
        // Wine's marshaler gives this server an array of objects with no feature saying so: it owns
        // its elements' references all the same, and a copy of it would go back as bare addresses.
        got->fFeatures |= FADF_DISPATCH;
        std::vector<SAFEARRAYBOUND> bounds(got->rgsabound, got->rgsabound + got->cDims);
        std::reverse(bounds.begin(), bounds.end());  // kept last dimension first
        result->parray = SafeArrayCreate(VT_DISPATCH, got->cDims, bounds.data());
        result->vt = value.vt;
        if (!result->parray)
            return E_OUTOFMEMORY;
        const USHORT features = result->parray->fFeatures;  // which the copy would take from the source
        const HRESULT hr = SafeArrayCopyData(got, result->parray);
        result->parray->fFeatures = features;
        return hr;
    }

    HRESULT STDMETHODCALLTYPE Make(LONG type, LONG count, VARIANT* result) override
    {
        SAFEARRAYBOUND bound{static_cast<ULONG>(count), 0};
        SAFEARRAY* array = SafeArrayCreate(static_cast<VARTYPE>(type), 1, &bound);
        if (!array)
            return E_INVALIDARG;
        for (LONG at = 0; at < count; ++at) {
            VARIANT number{}, element{};  // VT_EMPTY
            number.vt = VT_I4;
            number.lVal = at;
            if (type == VT_DISPATCH || type == VT_UNKNOWN) {
                element.vt = VT_DISPATCH;
                element.pdispVal = new CArrayChild(at);
            } else if (type != VT_VARIANT) {
                VariantChangeType(&element, &number, 0, static_cast<VARTYPE>(type));
            }
            // A VARIANT itself, an object or text as its pointer, else the value where the union starts.
            const bool pointer = element.vt == VT_DISPATCH || element.vt == VT_BSTR;
            SafeArrayPutElement(array, &at, type == VT_VARIANT ? &number : pointer ? element.byref : &element.bVal);
            VariantClear(&element);
        }
        result->vt = static_cast<VARTYPE>(VT_ARRAY | type);
        result->parray = array;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Cube(VARIANT* result) override
    {
        SAFEARRAYBOUND bounds[] = {{2, -1}, {3, 0}, {2, 5}};
        SAFEARRAY* array = SafeArrayCreate(VT_I4, 3, bounds);
        for (LONG at = 0; at < 12; ++at) {
            LONG index[] = {-1 + at / 6, at / 2 % 3, 5 + at % 2};
            LONG value = index[0] * 100 + index[1] * 10 + index[2];
            SafeArrayPutElement(array, index, &value);
        }
        result->vt = VT_ARRAY | VT_I4;
        result->parray = array;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE EmptyDimension(VARIANT* result) override
    {
        SAFEARRAYBOUND bounds[] = {{2, 0}, {0, 0}};
        result->vt = VT_ARRAY | VT_I4;
        result->parray = SafeArrayCreate(VT_I4, 2, bounds);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Children(LONG count, VARIANT* result) override { return Make(VT_DISPATCH, count, result); }

    HRESULT STDMETHODCALLTYPE Nested(LONG depth, VARIANT* result) override
    {
        VARIANT value;
        VariantInit(&value);
        value.vt = VT_I4;
        value.lVal = 42;
        SAFEARRAYBOUND one{1, 0};
        for (LONG level = 0; level < depth; ++level) {
            SAFEARRAY* around = SafeArrayCreate(VT_VARIANT, 1, &one);
            LONG index = 0;
            SafeArrayPutElement(around, &index, &value);
            VariantClear(&value);
            value.vt = VT_ARRAY | VT_VARIANT;
            value.parray = around;
        }
        *result = value;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Grow(SAFEARRAY** values) override
    {
        const LONG count = *values ? static_cast<LONG>((*values)->rgsabound[0].cElements) : 0;
        SAFEARRAYBOUND bound{static_cast<ULONG>(count) + 1, 1};
        SAFEARRAY* grown = SafeArrayCreate(VT_I4, 1, &bound);
        for (LONG at = 0; at <= count; ++at) {
            LONG value = kGrowExtra, from = at + (count ? (*values)->rgsabound[0].lLbound : 0), to = at + 1;
            if (at < count && SUCCEEDED(SafeArrayGetElement(*values, &from, &value)))
                value *= 2;
            SafeArrayPutElement(grown, &to, &value);
        }
        // In/out: the old array is the callee's to free when it puts another.
        if (*values)
            SafeArrayDestroy(*values);
        *values = grown;
        return S_OK;
    }
};

}  // namespace

HRESULT CreateArrayFixture(REFIID iid, void** out)
{
    auto* fixture = new CArrayFixture;
    const HRESULT hr = fixture->QueryInterface(iid, out);
    fixture->Release();
    return hr;
}

LONG LiveArrayFixtureObjects()
{
    return g_live;
}
