// The collection fixture's objects. The maker and the elements are served by
// the platform's type-driven dispatch on the server file's collection library
// (TYPELIB resource 4); a collection answers Invoke by hand, since its flags
// make it misbehave in ways that no type description can say.

#include <windows.h>
#include <olectl.h>
#include <oleauto.h>

// The identifiers of the collection library are defined here, once.
#include <initguid.h>

#include "collection_fixture.h"  // widl's header of collection_fixture.idl

#include <algorithm>
#include <cwchar>
#include <string>

#include "platform/platform_handles.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/collection_fixture_objects.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/servers/dual_dispatch.h"

using MetaObj::ComPtr;
using MetaObj::RegKey;
using namespace CollectionValues;

namespace {

volatile LONG g_liveCollectionObjects = 0;

// FixtureCell's identifier; widl declares none for a record.
constexpr GUID kCellType = {0x7C3A9E10, 0x4B2D, 0x4E8F, {0xA1, 0xC6, 0x5D, 0x0B, 0x3F, 0x2E, 0x7A, 0x02}};

ComPtr<ITypeLib> LoadCollectionLibrary()
{
    wchar_t path[MAX_PATH + 4];
    ComPtr<ITypeLib> library;
    if (ServerLibraryPath(kCollectionLibraryResource, path, MAX_PATH + 4))
        LoadTypeLibEx(path, REGKIND_NONE, library.Put());
    return library;
}

// The dispatch side of a dual interface, which clients see, and its virtual
// table side, which DispInvoke calls through.
// A true count of references, and the live objects of the fixture.
template <typename Interface>
class CCounted : public Interface {
public:
    CCounted(const CCounted&) = delete;
    CCounted& operator=(const CCounted&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = Answers(iid) ? static_cast<Interface*>(this) : nullptr;
        if (*out == nullptr)
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
    CCounted() { InterlockedIncrement(&g_liveCollectionObjects); }
    virtual ~CCounted() { InterlockedDecrement(&g_liveCollectionObjects); }
    virtual bool Answers(REFIID iid) const
    {
        return IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(Interface));
    }

private:
    volatile LONG references = 1;  // the creator's
};

// IDispatch of a dual interface through its type information.
template <typename Interface>
class CDual : public CDualDispatch<Interface, CCounted<Interface>> {
protected:
    CDual() : CDualDispatch<Interface, CCounted<Interface>>(kCollectionLibraryResource) {}
    bool Answers(REFIID iid) const override
    {
        return IsEqualIID(iid, IID_IDispatch) || CCounted<Interface>::Answers(iid);
    }
};

// The caller owns the one reference; E_FAIL without the type information.
template <typename Object, typename Wanted, typename... Arguments>
HRESULT CreateDual(Wanted** out, Arguments... arguments)
{
    *out = nullptr;
    auto* object = new Object(arguments...);
    auto owner = ComPtr<Wanted>::Adopt(object);
    if (!object->Ready())
        return E_FAIL;
    *out = owner.Detach();
    return S_OK;
}

class CElement : public CDual<IFixtureElement> {
public:
    explicit CElement(LONG index) : index(index) {}
    HRESULT STDMETHODCALLTYPE get_Index(LONG* value) override
    {
        *value = index;
        return S_OK;
    }

private:
    const LONG index;
};

ComPtr<IRecordInfo> CellRecordInfo()
{
    ComPtr<ITypeLib> library = LoadCollectionLibrary();
    ComPtr<ITypeInfo> cell;
    ComPtr<IRecordInfo> record;
    if (library && SUCCEEDED(library->GetTypeInfoOfGuid(kCellType, cell.Put())))
        GetRecordInfoFromTypeInfo(cell.Get(), record.Put());
    return record;
}

class CCollection;

class CEnumerator : public CCounted<IEnumVARIANT> {
public:
    CEnumerator(CCollection* collection, LONG position);

    HRESULT STDMETHODCALLTYPE Next(ULONG asked, VARIANT* out, ULONG* fetched) override;
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override;
    HRESULT STDMETHODCALLTYPE Reset() override;
    HRESULT STDMETHODCALLTYPE Clone(IEnumVARIANT** out) override;

private:
    ComPtr<IFixtureCollection> owner;  // the collection lives while an enumerator does
    CCollection& collection;
    LONG position;
};

class CCollection : public CDual<IFixtureCollection> {
public:
    CCollection(LONG flags, LONG size) : flags(flags), size(std::max(0L, size)) {}

    bool Has(LONG flag) const { return (flags & flag) != 0; }
    LONG Size() const { return size; }
    void NoteEnumeratorCall() { InterlockedIncrement(&enumeratorCalls); }

    // Element at of the collection, by the flags.
    HRESULT Element(LONG at, VARIANT* out) const
    {
        VariantInit(out);
        if (Has(kObjects) || Has(kUnknowns)) {
            IFixtureElement* element = nullptr;
            const HRESULT hr = CreateDual<CElement>(&element, at);
            if (FAILED(hr))
                return hr;
            V_VT(out) = Has(kObjects) ? VT_DISPATCH : VT_UNKNOWN;
            V_DISPATCH(out) = element;  // an IFixtureElement is both
            return S_OK;
        }
        if (!Has(kOddTypes) || at % 4 == 0) {
            V_VT(out) = VT_I4;
            V_I4(out) = at;
        } else if (at % 4 == 1) {
            V_VT(out) = VT_I8;
            V_I8(out) = at;
        } else if (at % 4 == 3) {
            ComPtr<IRecordInfo> record = CellRecordInfo();
            void* data = record ? record->RecordCreate() : nullptr;
            if (data == nullptr)
                return E_FAIL;
            static_cast<FixtureCell*>(data)->value = at;
            V_VT(out) = VT_RECORD;
            V_RECORD(out) = data;
            V_RECORDINFO(out) = record.Detach();
        }
        return S_OK;  // at % 4 == 2 stays VT_EMPTY
    }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID, WORD callFlags, DISPPARAMS*, VARIANT* result,
                                     EXCEPINFO*, UINT*) override
    {
        if (!IsEqualIID(iid, IID_NULL))
            return DISP_E_UNKNOWNINTERFACE;
        if (result == nullptr)
            return E_POINTER;
        VariantInit(result);
        switch (id) {
        case DISPID_NEWENUM:
            InterlockedIncrement(&newEnumCalls);
            if (Has(kNewEnumMissing) || (Has(kNewEnumMethodOnly) && callFlags != DISPATCH_METHOD))
                return DISP_E_MEMBERNOTFOUND;
            return NewEnum(result);
        case 1:
            if (Has(kNoCount))
                return DISP_E_MEMBERNOTFOUND;
            if (Has(kCountText)) {
                V_VT(result) = VT_BSTR;
                V_BSTR(result) = SysAllocString(kCountTextValue);
                return V_BSTR(result) ? S_OK : E_OUTOFMEMORY;
            }
            return Number(Has(kCountNegative) ? -5 : size, result);
        case 2:
            return Number(enumeratorCalls, result);
        case 3:
            return Number(newEnumCalls, result);
        default:
            return DISP_E_MEMBERNOTFOUND;
        }
    }

    // The virtual table side, for clients that bind early.
    HRESULT STDMETHODCALLTYPE get_Count(LONG* value) override
    {
        *value = size;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_EnumeratorCalls(LONG* value) override
    {
        *value = enumeratorCalls;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_NewEnumCalls(LONG* value) override
    {
        *value = newEnumCalls;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown** value) override
    {
        *value = new CEnumerator(this, 0);
        return S_OK;
    }

private:
    static HRESULT Number(LONG value, VARIANT* result)
    {
        V_VT(result) = VT_I4;
        V_I4(result) = value;
        return S_OK;
    }

    HRESULT NewEnum(VARIANT* result)
    {
        if (Has(kNewEnumNumber))
            return Number(7, result);
        if (Has(kNewEnumEmpty))
            return S_OK;
        if (Has(kNewEnumText)) {
            V_VT(result) = VT_BSTR;
            V_BSTR(result) = SysAllocString(L"enumerator");
            return V_BSTR(result) ? S_OK : E_OUTOFMEMORY;
        }
        if (Has(kNewEnumNotEnum)) {
            IFixtureElement* element = nullptr;
            const HRESULT hr = CreateDual<CElement>(&element, 0);
            V_VT(result) = VT_DISPATCH;
            V_DISPATCH(result) = element;
            return hr;
        }
        V_VT(result) = VT_UNKNOWN;
        V_UNKNOWN(result) = new CEnumerator(this, 0);
        return S_OK;
    }

    const LONG flags;
    const LONG size;
    volatile LONG enumeratorCalls = 0;
    volatile LONG newEnumCalls = 0;
};

CEnumerator::CEnumerator(CCollection* collection, LONG position)
    : collection(*collection), position(position)
{
    collection->AddRef();
    owner = ComPtr<IFixtureCollection>::Adopt(collection);
}

HRESULT CEnumerator::Next(ULONG asked, VARIANT* out, ULONG* fetched)
{
    collection.NoteEnumeratorCall();
    if (fetched != nullptr && !collection.Has(kNoFetched))
        *fetched = 0;
    if (out == nullptr)
        return E_POINTER;
    const LONG left = collection.Size() - position;
    if (collection.Has(kFailMidWalk) && position + static_cast<LONG>(std::min<ULONG>(asked, left)) > kFailAt)
        return E_FAIL;
    ULONG limit = std::min<ULONG>(asked, static_cast<ULONG>(left));
    if (collection.Has(kShortBatches))
        limit = std::min<ULONG>(limit, kShortBatch);
    ULONG given = 0;
    for (; given < limit; ++given) {
        if (FAILED(collection.Element(position, &out[given]))) {
            for (ULONG at = 0; at < given; ++at)
                VariantClear(&out[at]);
            return E_OUTOFMEMORY;
        }
        ++position;
    }
    if (fetched != nullptr && !collection.Has(kNoFetched))
        *fetched = given;
    // A short enumerator says S_OK whatever it gave, even nothing at the end.
    if (collection.Has(kShortBatches))
        return S_OK;
    return given == asked ? S_OK : S_FALSE;
}

HRESULT CEnumerator::Skip(ULONG count)
{
    collection.NoteEnumeratorCall();
    const LONG left = collection.Size() - position;
    const LONG moved = static_cast<LONG>(std::min<ULONG>(count, static_cast<ULONG>(left)));
    if (collection.Has(kFailMidWalk) && position + moved > kFailAt)
        return E_FAIL;
    position += moved;
    return static_cast<ULONG>(moved) == count ? S_OK : S_FALSE;
}

HRESULT CEnumerator::Reset()
{
    collection.NoteEnumeratorCall();
    if (collection.Has(kResetFails))
        return E_FAIL;
    position = 0;
    return S_OK;
}

HRESULT CEnumerator::Clone(IEnumVARIANT** out)
{
    collection.NoteEnumeratorCall();
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    if (collection.Has(kNoClone))
        return E_NOTIMPL;
    *out = new CEnumerator(&collection, position);
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
    if (FAILED(hr))
        return hr;
    auto owner = ComPtr<ICollectionFixture>::Adopt(maker);
    return owner->QueryInterface(iid, out);
}

LONG LiveCollectionObjects()
{
    return g_liveCollectionObjects;
}
