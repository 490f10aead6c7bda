// The call fixture's objects. Their dual interfaces are served by the platform's
// type-driven dispatch on the server file's own call library; Invoke records
// every call and answers by hand only what that dispatch can't produce.

#include <windows.h>
#include <oleauto.h>

// The identifiers of the call library are defined here, once.
#include <initguid.h>

#include "call_fixture.h"  // widl's header of call_fixture.idl

#include <cstdio>
#include <cwchar>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/platform_handles.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/dual_dispatch.h"
#include "tests/support/dispatch_call.h"

using MetaObj::ComPtr;
using namespace FixtureValues;

HINSTANCE g_fixtureModule = nullptr;

namespace {

volatile LONG g_liveObjects = 0;
volatile LONG g_lastChildId = 0;

// FixturePoint's identifier; widl declares none for a record.
constexpr GUID kPointType = {0x5B7E2C40, 0x8D31, 0x4F6A, {0xB0, 0xC9, 0x3E, 0x1D, 0x7A, 0x2F, 0x6C, 0x03}};
constexpr std::int32_t kDeferredScode = static_cast<std::int32_t>(0x80040200);

// Members that Invoke answers itself; the numbers are those of call_fixture.idl.
enum : DISPID { kLastCallId = 5, kFailDeferredId = 20, kThrowId = 23, kSumPointId = 40, kMakePointId, kMovePointId, kShapeId = 43 };

template <typename Value>
HRESULT Set(Value* cell, Value value)
{
    *cell = value;
    return S_OK;
}

struct Guard {
    explicit Guard(SRWLOCK& lock) : lock(lock) { AcquireSRWLockExclusive(&lock); }
    ~Guard() { ReleaseSRWLockExclusive(&lock); }
    SRWLOCK& lock;
};

// Leaves texts for the platform's dispatch to put into the caller's EXCEPINFO.
HRESULT FailWith(HRESULT failure, const wchar_t* source, const wchar_t* description)
{
    ComPtr<ICreateErrorInfo> create;
    ComPtr<IErrorInfo> info;
    if (SUCCEEDED(CreateErrorInfo(create.Put()))) {
        create->SetSource(const_cast<LPOLESTR>(source));
        create->SetDescription(const_cast<LPOLESTR>(description));
        if (SUCCEEDED(create.As(info)))
            SetErrorInfo(0, info.Get());
    }
    return failure;
}

// The positional arguments of a call, the first last, each converted to VT_I4.
HRESULT Numbers(const DISPPARAMS* params, UINT count, LONG* numbers)
{
    if (params == nullptr || params->cArgs != count || params->cNamedArgs != 0)
        return DISP_E_BADPARAMCOUNT;
    for (UINT at = 0; at < count; ++at) {
        ScopedVariant number;
        if (FAILED(VariantChangeType(number.Get(), &params->rgvarg[count - 1 - at], 0, VT_I4)))
            return DISP_E_TYPEMISMATCH;
        numbers[at] = V_I4(number.Get());
    }
    return S_OK;
}

// One line per call: flags, argument count, the named dispatch identifiers, and
// the type of each rgvarg entry in the order of the block, in hexadecimal.
std::wstring DescribeCall(WORD flags, const DISPPARAMS* params)
{
    const DISPPARAMS none{};
    const DISPPARAMS& call = params ? *params : none;
    std::wstring text = L"flags=" + std::to_wstring(flags) + L" args=" + std::to_wstring(call.cArgs) + L" named=[";
    for (UINT i = 0; i < call.cNamedArgs && call.rgdispidNamedArgs; ++i)
        text += (i ? L"," : L"") + std::to_wstring(call.rgdispidNamedArgs[i]);
    text += L"] vt=[";
    wchar_t type[8];
    for (UINT i = 0; i < call.cArgs && call.rgvarg; ++i) {
        std::swprintf(type, 8, i ? L",%04x" : L"%04x", V_VT(&call.rgvarg[i]));
        text += type;
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

HRESULT STDMETHODCALLTYPE FillInFails(EXCEPINFO*) { return E_FAIL; }

class CCallFixtureChild : public CCountedDual<ICallFixtureChild, g_liveObjects> {
public:
    template <typename Wanted>
    static HRESULT Create(Wanted** out)
    {
        *out = nullptr;
        auto child = ComPtr<ICallFixtureChild>::Adopt(new CCallFixtureChild);
        if (!static_cast<CCallFixtureChild*>(child.Get())->Ready())
            return E_FAIL;
        return child->QueryInterface(__uuidof(Wanted), reinterpret_cast<void**>(out));
    }
    HRESULT STDMETHODCALLTYPE get_Id(LONG* value) override { return Set(value, id); }

private:
    CCallFixtureChild() : CCountedDual(kCallLibraryResource), id(InterlockedIncrement(&g_lastChildId)) {}
    const LONG id;
};

// The bytes beyond a narrow value are zero, so a reader of more sees no garbage.
HRESULT MakeShape(LONG which, VARIANT* value)
{
    *value = VARIANT{};
    const VARTYPE types[ShapeRowCount] = {VT_EMPTY, VT_NULL, VT_I8, VT_BOOL, VT_UNKNOWN, VT_ERROR};
    if (which < 0 || which >= ShapeRowCount)
        return E_INVALIDARG;
    V_VT(value) = types[which];
    V_I8(value) = which == ShapeI8 ? kShapeI8 : which == ShapeBoolOne ? 1 : which == ShapeError ? kShapeError : 0;
    return which == ShapeUnknown ? CCallFixtureChild::Create(&V_UNKNOWN(value)) : S_OK;
}

// By the rules of [in,out]: the reference that came in is released, the new one goes out.
template <typename Object>
HRESULT Replace(Object** value)
{
    if (*value)
        (*value)->Release();
    return CCallFixtureChild::Create(value);
}

HRESULT NewText(const wchar_t* text, UINT length, BSTR* out)
{
    *out = SysAllocStringLen(text, length);
    return *out ? S_OK : E_OUTOFMEMORY;
}

HRESULT AppendMark(BSTR* text)
{
    const std::wstring changed = std::wstring(*text ? *text : L"") + L"!";
    return SysReAllocString(text, changed.c_str()) ? S_OK : E_OUTOFMEMORY;
}

// A VARIANT's text, with the mark appended.
HRESULT AppendMark(VARIANT* value)
{
    const HRESULT hr = VariantChangeType(value, value, 0, VT_BSTR);
    return FAILED(hr) ? hr : AppendMark(&V_BSTR(value));
}

class CCallFixture : public CCountedDual<ICallFixture, g_liveObjects> {
public:
    CCallFixture() : CCountedDual(kCallLibraryResource) {}

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* params,
                                     VARIANT* result, EXCEPINFO* exception, UINT* argumentError) override
    {
        // Reading the record leaves it standing, so a test can read it twice.
        if (id != kLastCallId) {
            Guard guard(lock);
            lastCall = DescribeCall(flags, params);
        }
        ScopedVariant unread;
        VARIANT* out = result ? result : unread.Get();
        LONG numbers[2] = {};
        switch (id) {
        case kFailDeferredId:  // DispInvoke has no way to give a deferred fill-in
            if (FAILED(Numbers(params, 1, numbers)))
                return DISP_E_BADPARAMCOUNT;
            if (exception) {
                *exception = EXCEPINFO{};
                exception->scode = kDeferredScode;
                exception->bstrSource = SysAllocString(kEarlySource);
                exception->bstrDescription = SysAllocString(kEarlyDescription);
                exception->pfnDeferredFillIn = numbers[0] == 0 ? FillInSucceeds : FillInFails;
            }
            return DISP_E_EXCEPTION;
        case kThrowId:
            // A C++ exception through the caller's frames, as a careless server raises one.
            throw std::runtime_error("CallFixture.Throw");
        case kSumPointId: {  // Wine's dispatch takes no record arguments or results at all
            FixturePoint* point = nullptr;
            const HRESULT hr = PointOf(params, &point);
            if (SUCCEEDED(hr)) {
                V_VT(out) = VT_I4;
                V_I4(out) = point->x + point->y;
            }
            return hr;
        }
        case kMovePointId: {  // one step along each axis, in the caller's own record
            FixturePoint* point = nullptr;
            const HRESULT hr = PointOf(params, &point);
            if (FAILED(hr) || !(V_VT(&params->rgvarg[0]) & VT_BYREF))
                return FAILED(hr) ? hr : DISP_E_TYPEMISMATCH;
            ++point->x;
            ++point->y;
            return S_OK;
        }
        case kMakePointId: {
            const HRESULT hr = Numbers(params, 2, numbers);
            return FAILED(hr) ? hr : PointVariant(numbers[0], numbers[1], out);
        }
        case kShapeId: {  // DispInvoke gives a by-reference result dereferenced; here it goes as it is
            const HRESULT hr = Numbers(params, 1, numbers);
            return FAILED(hr) ? hr : MakeShape(numbers[0], out);
        }
        default:
            return CCountedDual::Invoke(id, iid, locale, flags, params, result, exception, argumentError);
        }
    }

    HRESULT STDMETHODCALLTYPE get_Cell(LONG row, LONG column, LONG* value) override
    {
        Guard guard(lock);
        const auto found = cells.find({row, column});
        *value = found == cells.end() ? 0 : found->second;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_Cell(LONG row, LONG column, LONG value) override
    {
        Guard guard(lock);
        cells[{row, column}] = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_Target(IDispatch** value) override
    {
        Guard guard(lock);
        return Set(value, ComPtr<IDispatch>(target).Detach());
    }
    HRESULT STDMETHODCALLTYPE putref_Target(IDispatch* value) override { return Keep(target, value); }
    HRESULT STDMETHODCALLTYPE get_LastCall(BSTR* value) override
    {
        Guard guard(lock);
        *value = SysAllocString(lastCall.c_str());
        return *value ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE get_Number(LONG* value) override { return Set(value, LONG{42}); }
    // a + length of b + c truncated + 1000 if d is true.
    HRESULT STDMETHODCALLTYPE Four(LONG a, BSTR b, double c, VARIANT_BOOL d, LONG* result) override
    {
        return Set(result, LONG(a + SysStringLen(b) + static_cast<LONG>(c) + (d ? 1000 : 0)));
    }

    HRESULT STDMETHODCALLTYPE Pause(LONG milliseconds) override
    {
        Sleep(static_cast<DWORD>(milliseconds));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE NotImplemented() override
    {
        return FailWith(E_NOTIMPL, kNotImplementedSource, kNotImplementedDescription);
    }
    HRESULT STDMETHODCALLTYPE FailWithGarbage(LONG* a, double* b) override
    {
        *a = static_cast<LONG>(0xDEADBEEF);
        *b = -6.25e300;
        return FailWith(E_FAIL, kGarbageSource, kGarbageDescription);
    }

    HRESULT STDMETHODCALLTYPE MakeChild(IDispatch** child) override { return CCallFixtureChild::Create(child); }
    HRESULT STDMETHODCALLTYPE ChildId(IDispatch* child, LONG* id) override
    {
        ComPtr<ICallFixtureChild> ours;
        if (child == nullptr || FAILED(child->QueryInterface(IID_ICallFixtureChild, ours.PutVoid())))
            return E_INVALIDARG;
        return ours->get_Id(id);
    }
    HRESULT STDMETHODCALLTYPE Hold(IDispatch* object) override { return Keep(held, object); }
    // Drops the held object and the target alike.
    HRESULT STDMETHODCALLTYPE DropHeld() override { return Keep(held, nullptr), Keep(target, nullptr); }

    // Invoke answers these by hand; the entries are never reached.
    HRESULT STDMETHODCALLTYPE FailDeferred(LONG) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Throw() override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE SumPoint(FixturePoint, LONG*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE MakePoint(LONG, LONG, FixturePoint*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE MovePoint(FixturePoint*) override { return E_UNEXPECTED; }
    HRESULT STDMETHODCALLTYPE Shape(LONG, VARIANT*) override { return E_UNEXPECTED; }

// Echo gives the value back, Ref changes it visibly, Out writes a known value;
// those the library doesn't declare are left out of the interface.
#define FIXTURE_MEMBERS(Suffix, Type, echo, change, out)                                 \
    HRESULT STDMETHODCALLTYPE Echo##Suffix(Type value, Type* result) { return echo; }  \
    HRESULT STDMETHODCALLTYPE Ref##Suffix(Type* value) { return change; }             \
    HRESULT STDMETHODCALLTYPE Out##Suffix(Type* value) { return out; }
#define NUMBER_MEMBERS(Suffix, Type, out) \
    FIXTURE_MEMBERS(Suffix, Type, Set(result, value), Set(value, Type(*value + 1)), Set(value, Type(out)))

    NUMBER_MEMBERS(I1, char, kOutNumber)
    NUMBER_MEMBERS(I4, LONG, kOutNumber)
    NUMBER_MEMBERS(R8, double, kOutNumber)
    NUMBER_MEMBERS(Date, DATE, kOutDate)
    FIXTURE_MEMBERS(Cy, CY, Set(result, value), (value->int64 += 10000, S_OK), (value->int64 = kOutCy, S_OK))
    FIXTURE_MEMBERS(Bool, VARIANT_BOOL, Set(result, value),
                    Set(value, VARIANT_BOOL(*value ? VARIANT_FALSE : VARIANT_TRUE)), Set(value, VARIANT_BOOL(-1)))
    FIXTURE_MEMBERS(Colour, FixtureColour, Set(result, value),
                    Set(value, *value == Red ? Green : *value == Green ? Blue : Red), Set(value, Blue))
    // An [out] value comes in undefined: it is written over, never freed.
    FIXTURE_MEMBERS(Bstr, BSTR, NewText(value, SysStringLen(value), result), AppendMark(value),
                    NewText(kOutBstr, static_cast<UINT>(wcslen(kOutBstr)), value))
    FIXTURE_MEMBERS(Variant, VARIANT, (VariantInit(result), VariantCopy(result, &value)), AppendMark(value),
                    (VariantInit(value), V_VT(value) = VT_I8, V_I8(value) = kOutVariant, S_OK))
    FIXTURE_MEMBERS(Dispatch, IDispatch*, (value && value->AddRef(), Set(result, value)), Replace(value),
                    CCallFixtureChild::Create(value))
    FIXTURE_MEMBERS(Unknown, IUnknown*, (value && value->AddRef(), Set(result, value)), Replace(value),
                    CCallFixtureChild::Create(value))
#undef NUMBER_MEMBERS
#undef FIXTURE_MEMBERS

private:
    HRESULT PointVariant(LONG x, LONG y, VARIANT* value)
    {
        ComPtr<ITypeLib> library;
        ComPtr<ITypeInfo> point;
        ComPtr<IRecordInfo> record;
        UINT index = 0;
        if (FAILED(types.dispatch->GetContainingTypeLib(library.Put(), &index)) ||
            FAILED(library->GetTypeInfoOfGuid(kPointType, point.Put())) ||
            FAILED(GetRecordInfoFromTypeInfo(point.Get(), record.Put())))
            return E_FAIL;
        void* data = record->RecordCreate();
        if (data == nullptr)
            return E_FAIL;
        *static_cast<FixturePoint*>(data) = FixturePoint{x, y};
        V_VT(value) = VT_RECORD;
        V_RECORD(value) = data;
        V_RECORDINFO(value) = record.Detach();
        return S_OK;
    }

    HRESULT Keep(ComPtr<IDispatch>& slot, IDispatch* object)
    {
        if (object)
            object->AddRef();
        ComPtr<IDispatch> replaced = ComPtr<IDispatch>::Adopt(object);
        Guard guard(lock);
        std::swap(slot, replaced);
        return S_OK;
    }

    // The record's data is a FixturePoint once its type is ours.
    static HRESULT PointOf(const DISPPARAMS* params, FixturePoint** point)
    {
        if (params == nullptr || params->cArgs != 1 || params->cNamedArgs != 0)
            return DISP_E_BADPARAMCOUNT;
        const VARIANT& argument = params->rgvarg[0];
        GUID type{};
        if ((V_VT(&argument) & ~VT_BYREF) != VT_RECORD || V_RECORDINFO(&argument) == nullptr ||
            V_RECORD(&argument) == nullptr || FAILED(V_RECORDINFO(&argument)->GetGuid(&type)) ||
            !IsEqualGUID(type, kPointType))
            return DISP_E_TYPEMISMATCH;
        *point = static_cast<FixturePoint*>(V_RECORD(&argument));
        return S_OK;
    }

    SRWLOCK lock = SRWLOCK_INIT;
    std::map<std::pair<LONG, LONG>, LONG> cells;
    ComPtr<IDispatch> target;
    ComPtr<IDispatch> held;
    std::wstring lastCall;
};

}  // namespace

HRESULT CreateCallFixture(REFIID iid, void** out)
{
    *out = nullptr;
    auto owner = ComPtr<ICallFixture>::Adopt(new CCallFixture);
    if (!static_cast<CCallFixture*>(owner.Get())->Ready())
        return E_FAIL;
    return owner->QueryInterface(iid, out);
}

LONG LiveFixtureObjects()
{
    return g_liveObjects;
}

bool ServerLibraryPath(int resource, wchar_t* path, DWORD size)
{
    const DWORD length = GetModuleFileNameW(g_fixtureModule, path, size);
    if (length == 0 || length + 12 > size)
        return false;
    std::swprintf(path + length, size - length, L"\\%d", resource);
    return true;
}
