// The collection fixture's objects; a collection answers Invoke by hand, misbehaving as its flags ask.

#include <windows.h>
#include <oleauto.h>

#include <initguid.h>  // the collection library's identifiers are defined here, once

#include "collection_fixture.h"  // widl's header of collection_fixture.idl

#include <algorithm>

#include "tests/servers/collection_fixture_objects.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/servers/dual_dispatch.h"

using MetaObj::ComPtr;
using namespace CollectionValues;

namespace {

volatile LONG g_liveCollectionObjects = 0;

// FixtureCell's identifier; widl declares none for a record.
constexpr GUID kCellType = {0x7C3A9E10, 0x4B2D, 0x4E8F, {0xA1, 0xC6, 0x5D, 0x0B, 0x3F, 0x2E, 0x7A, 0x02}};

template <typename Interface>
using CCountedHere = CCounted<Interface, g_liveCollectionObjects>;

template <typename Interface>
class CDual : public CDualDispatch<Interface, CCountedHere<Interface>> {
protected:
    CDual() : CDualDispatch<Interface, CCountedHere<Interface>>(kCollectionLibraryResource) {}
};

// The caller owns the one reference; E_FAIL without the type information.
template <typename Object, typename Wanted, typename... Arguments>
HRESULT CreateDual(Wanted** out, Arguments... arguments)
{
    auto* object = new Object(arguments...);
    auto owner = ComPtr<Wanted>::Adopt(object);
    *out = object->Ready() ? owner.Detach() : nullptr;
    return *out ? S_OK : E_FAIL;
}

class CElement : public CDual<IFixtureElement> {
public:
    explicit CElement(LONG index) : index(index) {}
    HRESULT STDMETHODCALLTYPE get_Index(LONG* value) override { return *value = index, S_OK; }
    const LONG index;
};

HRESULT Number(LONG value, VARIANT* out)
{
    V_VT(out) = VT_I4;
    V_I4(out) = value;
    return S_OK;
}

HRESULT Text(const wchar_t* value, VARIANT* out)
{
    V_VT(out) = VT_BSTR;
    V_BSTR(out) = SysAllocString(value);
    return S_OK;
}

HRESULT ElementObject(LONG index, VARTYPE type, VARIANT* out)
{
    IFixtureElement* element = nullptr;
    const HRESULT hr = CreateDual<CElement>(&element, index);
    V_VT(out) = element ? type : VARTYPE(VT_EMPTY);
    V_DISPATCH(out) = element;  // an IFixtureElement is both
    return hr;
}

// Element at, by the flags: VT_I4 at, or as kOddTypes and kObjects say.
HRESULT Element(LONG flags, LONG at, VARIANT* out)
{
    VariantInit(out);
    if (flags & (kObjects | kUnknowns))
        return ElementObject(at, VARTYPE((flags & kObjects) ? VT_DISPATCH : VT_UNKNOWN), out);
    const LONG kind = (flags & kOddTypes) ? at % 4 : 0;
    if (kind == 0)
        return Number(at, out);
    if (kind == 1) {
        V_VT(out) = VT_I8;
        V_I8(out) = at;
    } else if (kind == 3) {
        ComPtr<IRecordInfo> record;
        GetRecordInfoFromGuids(LIBID_CollectionFixtureLib, 1, 0, 0, kCellType, record.Put());
        void* data = record ? record->RecordCreate() : nullptr;
        if (data == nullptr)
            return E_FAIL;
        static_cast<FixtureCell*>(data)->value = at;
        V_VT(out) = VT_RECORD;
        V_RECORD(out) = data;
        V_RECORDINFO(out) = record.Detach();
    }
    return S_OK;  // kind 2 stays VT_EMPTY
}

class CCollection : public CDual<IFixtureCollection> {
public:
    CCollection(LONG flags, LONG size) : flags(flags), size(std::max(0L, size)) {}

    bool Has(LONG flag) const { return (flags & flag) != 0; }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD callFlags, DISPPARAMS*, VARIANT* result,
                                     EXCEPINFO*, UINT*) override
    {
        if (result == nullptr)
            return E_POINTER;
        VariantInit(result);
        if (id == DISPID_NEWENUM) {
            InterlockedIncrement(&newEnumCalls);
            if (Has(kNewEnumMissing) || (Has(kNewEnumMethodOnly) && callFlags != DISPATCH_METHOD))
                return DISP_E_MEMBERNOTFOUND;
            if (Has(kNewEnumNumber) || Has(kNewEnumEmpty))
                return Has(kNewEnumNumber) ? Number(7, result) : S_OK;
            if (Has(kNewEnumText))
                return Text(L"enumerator", result);
            if (Has(kNewEnumNotEnum))
                return ElementObject(0, VT_DISPATCH, result);
            V_VT(result) = VT_UNKNOWN;
            return get__NewEnum(&V_UNKNOWN(result));
        }
        if (id == 1 && Has(kCountText))
            return Text(kCountTextValue, result);
        if (id == 1 && !Has(kNoCount))
            return Number(Has(kCountNegative) ? -5 : size, result);
        if (id == 2 || id == 3)
            return Number(id == 2 ? enumeratorCalls : newEnumCalls, result);
        return DISP_E_MEMBERNOTFOUND;
    }

    HRESULT STDMETHODCALLTYPE get_Count(LONG* value) override { return *value = size, S_OK; }
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown** value) override;

    const LONG flags;
    const LONG size;
    volatile LONG enumeratorCalls = 0;
    volatile LONG newEnumCalls = 0;
};

class CEnumerator : public CCountedHere<IEnumVARIANT> {
public:
    // The collection lives while an enumerator does.
    CEnumerator(CCollection& collection, LONG position) : collection(collection), position(position)
    {
        collection.AddRef();
    }
    ~CEnumerator() override { collection.Release(); }

    HRESULT STDMETHODCALLTYPE Next(ULONG asked, VARIANT* out, ULONG* fetched) override
    {
        const bool tells = fetched != nullptr && !collection.Has(kNoFetched);
        if (tells)
            *fetched = 0;
        ULONG limit = std::min<ULONG>(asked, collection.size - position);
        if (Failing(limit))
            return E_FAIL;
        if (collection.Has(kShortBatches))
            limit = std::min<ULONG>(limit, kShortBatch);
        for (ULONG given = 0; given < limit; ++given)
            Element(collection.flags, position + given, &out[given]);  // one that can't be made stays empty
        position += limit;
        if (tells)
            *fetched = limit;
        // A short enumerator says S_OK whatever it gave, even nothing at the end.
        return limit == asked || collection.Has(kShortBatches) ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override
    {
        const ULONG moved = std::min<ULONG>(count, collection.size - position);
        if (Failing(moved))
            return E_FAIL;
        position += moved;
        return moved == count ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Reset() override
    {
        if (Note() && collection.Has(kResetFails))
            return E_FAIL;
        position = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumVARIANT** out) override
    {
        *out = Note() && collection.Has(kNoClone) ? nullptr : new CEnumerator(collection, position);
        return *out ? S_OK : E_NOTIMPL;
    }

private:
    bool Note() { return InterlockedIncrement(&collection.enumeratorCalls) != 0; }
    // Counts the call; true when moving by this many passes kFailAt.
    bool Failing(ULONG moving) { return Note() && collection.Has(kFailMidWalk) && position + LONG(moving) > kFailAt; }

    CCollection& collection;
    LONG position;
};

HRESULT CCollection::get__NewEnum(IUnknown** value)
{
    *value = new CEnumerator(*this, 0);
    return S_OK;
}

class CMaker : public CDual<ICollectionFixture> {
public:
    HRESULT STDMETHODCALLTYPE Make(LONG flags, LONG size, IDispatch** collection) override
    {
        IFixtureCollection* made = nullptr;
        const HRESULT hr = CreateDual<CCollection>(&made, flags, size);
        *collection = made;
        return hr;
    }
};

}  // namespace

HRESULT CreateCollectionFixture(REFIID iid, void** out)
{
    ICollectionFixture* maker = nullptr;
    const HRESULT hr = CreateDual<CMaker>(&maker);
    auto owner = ComPtr<ICollectionFixture>::Adopt(maker);
    return FAILED(hr) ? hr : owner->QueryInterface(iid, out);
}

LONG LiveCollectionObjects()
{
    return g_liveCollectionObjects;
}
