// The call fixture's objects. Their dual interfaces are served by the platform's
// type-driven dispatch on the server file's own call library; Invoke answers by
// hand only what that dispatch can't produce.

#include <windows.h>
#include <oleauto.h>

// The identifiers of the call library are defined here, once.
#include <initguid.h>

#include "call_fixture.h"  // widl's header of call_fixture.idl

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/platform_handles.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/dual_dispatch.h"

using MetaObj::Bstr;
using MetaObj::ComPtr;
using namespace FixtureValues;

HINSTANCE g_fixtureModule = nullptr;

namespace {

volatile LONG g_liveObjects = 0;
volatile LONG g_serverLocks = 0;
volatile LONG g_lastChildId = 0;
LONG g_shapeTarget = kShapeI4Target;  // what the VT_I4|VT_BYREF result of Shape points at

// FixturePoint's identifier; widl declares none for a record.
constexpr GUID kPointType = {0x5B7E2C40, 0x8D31, 0x4F6A, {0xB0, 0xC9, 0x3E, 0x1D, 0x7A, 0x2F, 0x6C, 0x03}};

// Members that Invoke answers itself; the numbers are those of call_fixture.idl.
constexpr DISPID kLastCallId = 5;
constexpr DISPID kFailDeferredId = 20;
constexpr DISPID kThrowId = 23;
constexpr DISPID kSumPointId = 40;
constexpr DISPID kMakePointId = 41;
constexpr DISPID kShapeId = 43;
constexpr DISPID kEchoIntId = 118;  // then RefInt, OutInt, EchoUInt, RefUInt, OutUInt
constexpr DISPID kOutUIntId = 123;

class Section {
public:
    Section() { InitializeCriticalSection(&section); }
    ~Section() { DeleteCriticalSection(&section); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
    CRITICAL_SECTION* Get() { return &section; }

private:
    CRITICAL_SECTION section;
};

class SectionGuard {
public:
    explicit SectionGuard(Section& section) : section(section.Get()) { EnterCriticalSection(this->section); }
    ~SectionGuard() { LeaveCriticalSection(section); }
    SectionGuard(const SectionGuard&) = delete;
    SectionGuard& operator=(const SectionGuard&) = delete;

private:
    CRITICAL_SECTION* section;
};

struct VariantOwner {
    VariantOwner() { VariantInit(&value); }
    ~VariantOwner() { VariantClear(&value); }
    VariantOwner(const VariantOwner&) = delete;
    VariantOwner& operator=(const VariantOwner&) = delete;
    VARIANT value;
};

ComPtr<ITypeLib> LoadCallLibrary()
{
    wchar_t path[MAX_PATH + 4];
    ComPtr<ITypeLib> library;
    if (CallLibraryPath(path, MAX_PATH + 4))
        LoadTypeLibEx(path, REGKIND_NONE, library.Put());
    return library;
}

// The type information a client sees (the dispatch side of the dual interface)
// and the one that DispInvoke calls through (its virtual table side).
ComPtr<IRecordInfo> PointRecordInfo()
{
    ComPtr<ITypeLib> library = LoadCallLibrary();
    ComPtr<ITypeInfo> point;
    ComPtr<IRecordInfo> record;
    if (library && SUCCEEDED(library->GetTypeInfoOfGuid(kPointType, point.Put())))
        GetRecordInfoFromTypeInfo(point.Get(), record.Put());
    return record;
}

// Leaves texts for the platform's dispatch to put into the caller's EXCEPINFO.
HRESULT FailWith(HRESULT failure, const wchar_t* source, const wchar_t* description)
{
    ComPtr<ICreateErrorInfo> create;
    if (FAILED(CreateErrorInfo(create.Put())))
        return failure;
    create->SetSource(const_cast<LPOLESTR>(source));
    create->SetDescription(const_cast<LPOLESTR>(description));
    ComPtr<IErrorInfo> info;
    if (SUCCEEDED(create.As(info)))
        SetErrorInfo(0, info.Get());
    return failure;
}

// The one positional argument of a call, converted to the type.
HRESULT SingleArgument(const DISPPARAMS* params, VARTYPE type, VARIANT* converted)
{
    if (params == nullptr || params->cArgs != 1 || params->cNamedArgs != 0)
        return DISP_E_BADPARAMCOUNT;
    return SUCCEEDED(VariantChangeType(converted, &params->rgvarg[0], 0, type)) ? S_OK : DISP_E_TYPEMISMATCH;
}

// One line per call: flags, argument count, the named dispatch identifiers, and
// the type of each rgvarg entry in the order of the block, in hexadecimal.
std::wstring DescribeCall(WORD flags, const DISPPARAMS* params)
{
    const UINT arguments = params ? params->cArgs : 0;
    const UINT named = params ? params->cNamedArgs : 0;
    wchar_t part[32];
    std::swprintf(part, 32, L"flags=%u args=%u named=[", flags, arguments);
    std::wstring text = part;
    for (UINT i = 0; i < named && params->rgdispidNamedArgs; ++i) {
        std::swprintf(part, 32, i ? L",%ld" : L"%ld", static_cast<long>(params->rgdispidNamedArgs[i]));
        text += part;
    }
    text += L"] vt=[";
    for (UINT i = 0; i < arguments && params->rgvarg; ++i) {
        std::swprintf(part, 32, i ? L",%04x" : L"%04x", V_VT(&params->rgvarg[i]));
        text += part;
    }
    return text + L"]";
}

HRESULT STDMETHODCALLTYPE FillInSucceeds(EXCEPINFO* exception)
{
    exception->scode = kDeferredScode;
    exception->bstrSource = SysAllocString(kDeferredSource);
    exception->bstrDescription = SysAllocString(kDeferredDescription);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE FillInFails(EXCEPINFO*)
{
    return E_FAIL;
}

// IUnknown with a true count, and IDispatch through the interface's type information.
template <typename Interface>
class CFixtureDispatch : public CDualDispatch<Interface> {
public:
    CFixtureDispatch(const CFixtureDispatch&) = delete;
    CFixtureDispatch& operator=(const CFixtureDispatch&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, __uuidof(Interface))) {
            *out = static_cast<Interface*>(this);
            this->AddRef();
            return S_OK;
        }
        *out = QueryMore(iid);
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
    CFixtureDispatch() : CDualDispatch<Interface>(kCallLibraryResource) { InterlockedIncrement(&g_liveObjects); }
    virtual ~CFixtureDispatch() { InterlockedDecrement(&g_liveObjects); }
    virtual void* QueryMore(REFIID) { return nullptr; }

private:
    volatile LONG references = 1;  // the creator's
};

class CCallFixtureChild : public CFixtureDispatch<ICallFixtureChild> {
public:
    // Null if the type information can't be had.
    static ComPtr<ICallFixtureChild> Create()
    {
        auto child = ComPtr<ICallFixtureChild>::Adopt(new CCallFixtureChild);
        if (!static_cast<CCallFixtureChild*>(child.Get())->Ready())
            return {};
        return child;
    }
    template <typename Wanted>
    static HRESULT Create(Wanted** out)
    {
        *out = nullptr;
        ComPtr<ICallFixtureChild> child = Create();
        if (!child)
            return E_FAIL;
        return child->QueryInterface(__uuidof(Wanted), reinterpret_cast<void**>(out));
    }

    HRESULT STDMETHODCALLTYPE get_Id(LONG* value) override
    {
        *value = id;
        return S_OK;
    }

private:
    CCallFixtureChild() : id(InterlockedIncrement(&g_lastChildId)) {}
    const LONG id;
};

FixtureColour NextColour(FixtureColour colour)
{
    switch (colour) {
    case Red:
        return Green;
    case Green:
        return Blue;
    default:
        return Red;
    }
}

class CCallFixture : public CFixtureDispatch<ICallFixture>, public ISupportErrorInfo {
public:
    CCallFixture() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        return CFixtureDispatch::QueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return CFixtureDispatch::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return CFixtureDispatch::Release(); }
    HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID iid) override
    {
        return IsEqualIID(iid, IID_ICallFixture) ? S_OK : S_FALSE;
    }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* params,
                                     VARIANT* result, EXCEPINFO* exception, UINT* argumentError) override
    {
        // Reading the record leaves it standing, so a test can read it twice.
        if (id != kLastCallId) {
            SectionGuard guard(section);
            lastCall = DescribeCall(flags, params);
        }
        switch (id) {
        case kFailDeferredId:
            return FailDeferredByHand(params, exception);
        case kSumPointId:
            return SumPointByHand(params, result);
        case kMakePointId:
            return MakePointByHand(params, result);
        case kShapeId:
            return ShapeByHand(params, result);
        case kThrowId:
            // A C++ exception through the caller's frames, as a careless server raises one.
            throw std::runtime_error("CallFixture.Throw");
        default:
            if (id >= kEchoIntId && id <= kOutUIntId)
                return IntegerByHand(id, params, result);
            return CFixtureDispatch::Invoke(id, iid, locale, flags, params, result, exception, argumentError);
        }
    }

    HRESULT STDMETHODCALLTYPE get_Value(VARIANT* value) override
    {
        SectionGuard guard(section);
        VariantInit(value);
        return VariantCopy(value, &stored.value);
    }
    HRESULT STDMETHODCALLTYPE put_Value(VARIANT value) override
    {
        SectionGuard guard(section);
        return VariantCopy(&stored.value, &value);
    }
    HRESULT STDMETHODCALLTYPE get_Count(LONG* value) override
    {
        SectionGuard guard(section);
        *value = count;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_Count(LONG value) override
    {
        SectionGuard guard(section);
        count = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_Cell(LONG row, LONG column, LONG* value) override
    {
        SectionGuard guard(section);
        const auto found = cells.find({row, column});
        *value = found == cells.end() ? 0 : found->second;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_Cell(LONG row, LONG column, LONG value) override
    {
        SectionGuard guard(section);
        cells[{row, column}] = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_Target(IDispatch** value) override
    {
        SectionGuard guard(section);
        ComPtr<IDispatch> copy = target;
        *value = copy.Detach();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE putref_Target(IDispatch* value) override
    {
        if (value)
            value->AddRef();
        ComPtr<IDispatch> replaced = ComPtr<IDispatch>::Adopt(value);
        SectionGuard guard(section);
        std::swap(target, replaced);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_LastCall(BSTR* value) override
    {
        SectionGuard guard(section);
        *value = SysAllocString(lastCall.c_str());
        return *value ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE get_Number(LONG* value) override
    {
        *value = kNumber;
        return S_OK;
    }
    // a + length of b + c truncated + 1000 if d is true.
    HRESULT STDMETHODCALLTYPE Four(LONG a, BSTR b, double c, VARIANT_BOOL d, LONG* result) override
    {
        *result = a + static_cast<LONG>(SysStringLen(b)) + static_cast<LONG>(c) + (d ? 1000 : 0);
        return S_OK;
    }

    // Invoke answers FailDeferred and Throw by hand; these entries are never reached.
    HRESULT STDMETHODCALLTYPE FailDeferred(LONG) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Throw() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE NotImplemented() override
    {
        return FailWith(E_NOTIMPL, kNotImplementedSource, kNotImplementedDescription);
    }
    HRESULT STDMETHODCALLTYPE FailWithGarbage(LONG* a, double* b) override
    {
        *a = kGarbageLong;
        *b = kGarbageDouble;
        return FailWith(E_FAIL, kGarbageSource, kGarbageDescription);
    }

    HRESULT STDMETHODCALLTYPE MakeChild(IDispatch** child) override { return CCallFixtureChild::Create(child); }
    HRESULT STDMETHODCALLTYPE NullChild(IDispatch** child) override
    {
        *child = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ChildId(IDispatch* child, LONG* id) override
    {
        if (child == nullptr)
            return E_POINTER;
        ComPtr<ICallFixtureChild> ours;
        if (FAILED(child->QueryInterface(IID_ICallFixtureChild, ours.PutVoid())))
            return E_INVALIDARG;
        return ours->get_Id(id);
    }
    HRESULT STDMETHODCALLTYPE Hold(IDispatch* object) override
    {
        if (object)
            object->AddRef();
        ComPtr<IDispatch> replaced = ComPtr<IDispatch>::Adopt(object);
        SectionGuard guard(section);
        std::swap(held, replaced);
        return S_OK;
    }
    // Drops the held object and the target alike.
    HRESULT STDMETHODCALLTYPE DropHeld() override
    {
        ComPtr<IDispatch> droppedHeld, droppedTarget;
        SectionGuard guard(section);
        std::swap(held, droppedHeld);
        std::swap(target, droppedTarget);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE SumPoint(FixturePoint point, LONG* sum) override
    {
        *sum = point.x + point.y;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MakePoint(LONG x, LONG y, FixturePoint* point) override
    {
        point->x = x;
        point->y = y;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MakeDecimal(DECIMAL* value) override { return VarDecFromR8(kDecimal, value); }
    // The bytes beyond a narrow value are zero, so a reader of more sees no garbage.
    HRESULT STDMETHODCALLTYPE Shape(LONG which, VARIANT* value) override
    {
        std::memset(value, 0, sizeof *value);
        switch (which) {
        case ShapeEmpty:
            return S_OK;
        case ShapeNull:
            V_VT(value) = VT_NULL;
            return S_OK;
        case ShapeI1:
            V_VT(value) = VT_I1;
            V_I1(value) = -1;
            return S_OK;
        case ShapeUI2:
            V_VT(value) = VT_UI2;
            V_UI2(value) = kShapeUI2;
            return S_OK;
        case ShapeI8:
            V_VT(value) = VT_I8;
            V_I8(value) = kShapeI8;
            return S_OK;
        case ShapeBoolOne:
            V_VT(value) = VT_BOOL;
            V_BOOL(value) = 1;
            return S_OK;
        case ShapeI4ByRef:
            V_VT(value) = VT_I4 | VT_BYREF;
            V_I4REF(value) = &g_shapeTarget;
            return S_OK;
        case ShapeNullDispatch:
            V_VT(value) = VT_DISPATCH;
            V_DISPATCH(value) = nullptr;
            return S_OK;
        case ShapeDecimal: {
            DECIMAL decimal;
            const HRESULT hr = VarDecFromR8(kShapeDecimal, &decimal);
            V_DECIMAL(value) = decimal;  // sets the type word as well
            V_VT(value) = VT_DECIMAL;
            return hr;
        }
        case ShapeUnknown:
            V_VT(value) = VT_UNKNOWN;
            return CCallFixtureChild::Create(&V_UNKNOWN(value));
        case ShapeError:
            V_VT(value) = VT_ERROR;
            V_ERROR(value) = kShapeError;
            return S_OK;
        case ShapeDate:
            V_VT(value) = VT_DATE;
            V_DATE(value) = kOutDate;
            return S_OK;
        case ShapeCy:
            V_VT(value) = VT_CY;
            V_CY(value).int64 = kOutCy;
            return S_OK;
        case ShapeRecord:
            return MakePointVariant(kPointX, kPointY, value);
        default:
            return E_INVALIDARG;
        }
    }

#define FIXTURE_NUMERIC_MEMBERS(Suffix, Type, OutValue)                              \
    HRESULT STDMETHODCALLTYPE Echo##Suffix(Type value, Type* result) override       \
    {                                                                                \
        *result = value;                                                             \
        return S_OK;                                                                 \
    }                                                                                \
    HRESULT STDMETHODCALLTYPE Ref##Suffix(Type* value) override                      \
    {                                                                                \
        *value = static_cast<Type>(*value + 1);                                      \
        return S_OK;                                                                 \
    }                                                                                \
    HRESULT STDMETHODCALLTYPE Out##Suffix(Type* value) override                      \
    {                                                                                \
        *value = static_cast<Type>(OutValue);                                        \
        return S_OK;                                                                 \
    }

    FIXTURE_NUMERIC_MEMBERS(I1, char, kOutI1)
    FIXTURE_NUMERIC_MEMBERS(UI1, unsigned char, kOutUI1)
    FIXTURE_NUMERIC_MEMBERS(I2, short, kOutI2)
    FIXTURE_NUMERIC_MEMBERS(UI2, unsigned short, kOutUI2)
    FIXTURE_NUMERIC_MEMBERS(I4, LONG, kOutI4)
    FIXTURE_NUMERIC_MEMBERS(UI4, ULONG, kOutUI4)
    FIXTURE_NUMERIC_MEMBERS(Int, int, kOutInt)
    FIXTURE_NUMERIC_MEMBERS(UInt, unsigned int, kOutUInt)
    FIXTURE_NUMERIC_MEMBERS(R4, float, kOutR4)
    FIXTURE_NUMERIC_MEMBERS(R8, double, kOutR8)
    FIXTURE_NUMERIC_MEMBERS(Date, DATE, kOutDate)
#undef FIXTURE_NUMERIC_MEMBERS

    HRESULT STDMETHODCALLTYPE EchoBool(VARIANT_BOOL value, VARIANT_BOOL* result) override
    {
        *result = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE RefBool(VARIANT_BOOL* value) override
    {
        *value = *value ? VARIANT_FALSE : VARIANT_TRUE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OutBool(VARIANT_BOOL* value) override
    {
        *value = kOutBool;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE EchoBstr(BSTR value, BSTR* result) override
    {
        *result = SysAllocStringLen(value, SysStringLen(value));
        return *result ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE RefBstr(BSTR* value) override
    {
        const std::wstring text = std::wstring(*value ? *value : L"") + kRefSuffix;
        return SysReAllocString(value, text.c_str()) ? S_OK : E_OUTOFMEMORY;
    }
    // An [out] value comes in undefined: it is written over, never freed.
    HRESULT STDMETHODCALLTYPE OutBstr(BSTR* value) override
    {
        *value = SysAllocString(kOutBstr);
        return *value ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE EchoCy(CY value, CY* result) override
    {
        *result = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE RefCy(CY* value) override
    {
        value->int64 += 10000;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OutCy(CY* value) override
    {
        value->int64 = kOutCy;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE EchoVariant(VARIANT value, VARIANT* result) override
    {
        VariantInit(result);
        return VariantCopy(result, &value);
    }
    HRESULT STDMETHODCALLTYPE RefVariant(VARIANT* value) override
    {
        VariantOwner text;
        const HRESULT hr = VariantChangeType(&text.value, value, 0, VT_BSTR);
        if (FAILED(hr))
            return hr;
        const std::wstring changed = std::wstring(V_BSTR(&text.value) ? V_BSTR(&text.value) : L"") + kRefSuffix;
        Bstr fresh(SysAllocString(changed.c_str()));
        if (!fresh)
            return E_OUTOFMEMORY;
        VariantClear(value);
        V_VT(value) = VT_BSTR;
        V_BSTR(value) = fresh.Release();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OutVariant(VARIANT* value) override
    {
        VariantInit(value);
        V_VT(value) = VT_I4;
        V_I4(value) = kOutVariant;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE EchoColour(FixtureColour value, FixtureColour* result) override
    {
        *result = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE RefColour(FixtureColour* value) override
    {
        *value = NextColour(*value);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OutColour(FixtureColour* value) override
    {
        *value = static_cast<FixtureColour>(kOutColour);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE EchoDispatch(IDispatch* value, IDispatch** result) override
    {
        return Echo(value, result);
    }
    HRESULT STDMETHODCALLTYPE RefDispatch(IDispatch** value) override { return Replace(value); }
    HRESULT STDMETHODCALLTYPE OutDispatch(IDispatch** value) override { return CCallFixtureChild::Create(value); }
    HRESULT STDMETHODCALLTYPE EchoUnknown(IUnknown* value, IUnknown** result) override { return Echo(value, result); }
    HRESULT STDMETHODCALLTYPE RefUnknown(IUnknown** value) override { return Replace(value); }
    HRESULT STDMETHODCALLTYPE OutUnknown(IUnknown** value) override { return CCallFixtureChild::Create(value); }

private:
    template <typename Object>
    static HRESULT Echo(Object* value, Object** result)
    {
        if (value)
            value->AddRef();
        *result = value;
        return S_OK;
    }
    // By the rules of [in,out]: the reference that came in is released, the new one goes out.
    template <typename Object>
    static HRESULT Replace(Object** value)
    {
        Object* fresh = nullptr;
        const HRESULT hr = CCallFixtureChild::Create(&fresh);
        if (FAILED(hr))
            return hr;
        if (*value)
            (*value)->Release();
        *value = fresh;
        return S_OK;
    }

    void* QueryMore(REFIID iid) override
    {
        return IsEqualIID(iid, IID_ISupportErrorInfo) ? static_cast<ISupportErrorInfo*>(this) : nullptr;
    }

    static HRESULT MakePointVariant(LONG x, LONG y, VARIANT* value)
    {
        ComPtr<IRecordInfo> record = PointRecordInfo();
        if (!record)
            return E_FAIL;
        void* data = record->RecordCreate();
        if (data == nullptr)
            return E_OUTOFMEMORY;
        *static_cast<FixturePoint*>(data) = FixturePoint{x, y};
        V_VT(value) = VT_RECORD;
        V_RECORD(value) = data;
        V_RECORDINFO(value) = record.Detach();
        return S_OK;
    }

    // DispInvoke has no way to give a deferred fill-in.
    HRESULT FailDeferredByHand(const DISPPARAMS* params, EXCEPINFO* exception)
    {
        VariantOwner mode;
        const HRESULT hr = SingleArgument(params, VT_I4, &mode.value);
        if (FAILED(hr))
            return hr;
        if (exception) {
            *exception = EXCEPINFO{};
            exception->scode = kDeferredScode;
            exception->bstrSource = SysAllocString(kEarlySource);
            exception->bstrDescription = SysAllocString(kEarlyDescription);
            exception->pfnDeferredFillIn = V_I4(&mode.value) == 0 ? FillInSucceeds : FillInFails;
        }
        return DISP_E_EXCEPTION;
    }

    // Wine's dispatch takes no record arguments or results at all.
    HRESULT SumPointByHand(const DISPPARAMS* params, VARIANT* result)
    {
        if (params == nullptr || params->cArgs != 1 || params->cNamedArgs != 0)
            return DISP_E_BADPARAMCOUNT;
        const VARIANT& argument = params->rgvarg[0];
        if ((V_VT(&argument) & ~VT_BYREF) != VT_RECORD || V_RECORDINFO(&argument) == nullptr ||
            V_RECORD(&argument) == nullptr)
            return DISP_E_TYPEMISMATCH;
        GUID type{};
        if (FAILED(V_RECORDINFO(&argument)->GetGuid(&type)) || !IsEqualGUID(type, kPointType))
            return DISP_E_TYPEMISMATCH;
        FixturePoint point{};
        for (auto field : {std::make_pair(L"x", &point.x), std::make_pair(L"y", &point.y)}) {
            VariantOwner value, number;
            if (FAILED(V_RECORDINFO(&argument)->GetField(V_RECORD(&argument), field.first, &value.value)) ||
                FAILED(VariantChangeType(&number.value, &value.value, 0, VT_I4)))
                return DISP_E_TYPEMISMATCH;
            *field.second = V_I4(&number.value);
        }
        LONG sum = 0;
        SumPoint(point, &sum);
        if (result != nullptr) {
            VariantInit(result);
            V_VT(result) = VT_I4;
            V_I4(result) = sum;
        }
        return S_OK;
    }

    HRESULT MakePointByHand(const DISPPARAMS* params, VARIANT* result)
    {
        if (params == nullptr || params->cArgs != 2 || params->cNamedArgs != 0)
            return DISP_E_BADPARAMCOUNT;
        VariantOwner x, y;
        if (FAILED(VariantChangeType(&x.value, &params->rgvarg[1], 0, VT_I4)) ||
            FAILED(VariantChangeType(&y.value, &params->rgvarg[0], 0, VT_I4)))
            return DISP_E_TYPEMISMATCH;
        FixturePoint point{};
        MakePoint(V_I4(&x.value), V_I4(&y.value), &point);
        if (result == nullptr)
            return S_OK;
        VariantInit(result);
        return MakePointVariant(point.x, point.y, result);
    }

    // DispInvoke gives a by-reference result dereferenced; here it goes out as it is.
    HRESULT ShapeByHand(const DISPPARAMS* params, VARIANT* result)
    {
        VariantOwner which;
        const HRESULT hr = SingleArgument(params, VT_I4, &which.value);
        if (FAILED(hr))
            return hr;
        VariantOwner unread;
        return Shape(V_I4(&which.value), result ? result : &unread.value);
    }

    // Wine's dispatch reads int and unsigned int as their 32-bit twins and then
    // refuses a VT_INT|VT_BYREF or VT_UINT|VT_BYREF argument, which is what a
    // caller of an int* passes; and it answers an int result as VT_I4.
    HRESULT IntegerByHand(DISPID id, const DISPPARAMS* params, VARIANT* result)
    {
        const bool isUnsigned = id > kEchoIntId + 2;
        const VARTYPE type = isUnsigned ? VT_UINT : VT_INT;
        const VARTYPE twin = isUnsigned ? VT_UI4 : VT_I4;
        const int member = (id - kEchoIntId) % 3;  // Echo, Ref, Out
        VariantOwner value;
        if (member == 0) {
            const HRESULT hr = SingleArgument(params, type, &value.value);
            if (FAILED(hr))
                return hr;
            if (result == nullptr)
                return S_OK;
            VariantInit(result);
            V_VT(result) = type;
            return isUnsigned ? EchoUInt(V_UINT(&value.value), &V_UINT(result))
                              : EchoInt(V_INT(&value.value), &V_INT(result));
        }
        if (params == nullptr || params->cArgs != 1 || params->cNamedArgs != 0)
            return DISP_E_BADPARAMCOUNT;
        const VARIANT& argument = params->rgvarg[0];
        if (V_VT(&argument) != (type | VT_BYREF) && V_VT(&argument) != (twin | VT_BYREF))
            return DISP_E_TYPEMISMATCH;
        if (isUnsigned) {
            auto* cell = static_cast<unsigned int*>(V_BYREF(&argument));
            return member == 1 ? RefUInt(cell) : OutUInt(cell);
        }
        auto* cell = static_cast<int*>(V_BYREF(&argument));
        return member == 1 ? RefInt(cell) : OutInt(cell);
    }

    Section section;
    VariantOwner stored;
    LONG count = 0;
    std::map<std::pair<LONG, LONG>, LONG> cells;
    ComPtr<IDispatch> target;
    ComPtr<IDispatch> held;
    std::wstring lastCall;
};

}  // namespace

HRESULT CreateCallFixture(REFIID iid, void** out)
{
    *out = nullptr;
    auto* fixture = new (std::nothrow) CCallFixture;
    if (fixture == nullptr)
        return E_OUTOFMEMORY;
    ComPtr<ICallFixture> owner = ComPtr<ICallFixture>::Adopt(fixture);
    if (!fixture->Ready())
        return E_FAIL;
    return owner->QueryInterface(iid, out);
}

LONG LiveFixtureObjects()
{
    return g_liveObjects;
}

void LockFixtureServer(bool lock)
{
    if (lock)
        InterlockedIncrement(&g_serverLocks);
    else
        InterlockedDecrement(&g_serverLocks);
}

bool FixtureServerLocked()
{
    return g_serverLocks != 0;
}

bool ServerLibraryPath(int resource, wchar_t* path, DWORD size)
{
    const DWORD length = GetModuleFileNameW(g_fixtureModule, path, size);
    if (length == 0 || length + 12 > size)
        return false;
    std::swprintf(path + length, size - length, L"\\%d", resource);
    return true;
}
