// The call fixture by raw COM: created by its ProgID as registered in the
// prefix, called through IDispatch::Invoke. The tests of the module's calls
// rely on every answer checked here.

#include <gtest/gtest.h>

#include <objbase.h>
#include <oleauto.h>

#include <functional>
#include <string>

#include "plugin/platform_handles.h"
#include "tests/module/module_fixture.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"
#include "tests/support/fixture_server.h"

using MetaObj::Bstr;
using MetaObj::ComPtr;
using namespace FixtureValues;

namespace {

GUID GuidOf(const char* text)
{
    GUID guid{};
    const std::wstring wide(text, text + std::char_traits<char>::length(text));
    CLSIDFromString(wide.c_str(), &guid);
    return guid;
}

ComPtr<IDispatch> CreateFixture()
{
    CLSID classId;
    ComPtr<IDispatch> fixture;
    if (SUCCEEDED(CLSIDFromProgID(kProgId, &classId)))
        CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, fixture.PutVoid());
    return fixture;
}

// A value as invariant text, so that rows can be written as text.
std::wstring TextOf(const VARIANT& value)
{
    ScopedVariant text;
    if (FAILED(VariantChangeTypeEx(text.Get(), const_cast<VARIANT*>(&value), LOCALE_INVARIANT, 0, VT_BSTR)))
        return L"<no text>";
    return V_BSTR(text.Get()) ? V_BSTR(text.Get()) : L"";
}

// The text read as the given type.
void FromText(VARIANT* out, const wchar_t* text, VARTYPE type)
{
    VARIANT source;
    V_VT(&source) = VT_BSTR;
    V_BSTR(&source) = const_cast<BSTR>(text);  // read only, never freed
    VariantClear(out);
    ASSERT_EQ(VariantChangeTypeEx(out, &source, LOCALE_INVARIANT, 0, type), S_OK)
        << "row text " << std::string(text, text + wcslen(text));
}

std::wstring LastCall(IDispatch* fixture)
{
    ScopedVariant text;
    if (FAILED(CallByName(fixture, L"LastCall", DISPATCH_PROPERTYGET, {}, text.Get())) ||
        V_VT(text.Get()) != VT_BSTR)
        return L"<none>";
    return V_BSTR(text.Get());
}

std::string Narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end());
}

class CallFixtureServerTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.Loaded()) << "ComHandlerTest.CallFixture is not registered"; }

    // The body gets a new fixture on a thread of the given apartment; afterwards
    // every object it made must be gone.
    void WithFixture(const std::function<void(IDispatch*)>& body, DWORD apartment = COINIT_MULTITHREADED)
    {
        const long before = server.LiveObjects();
        RunOnThread([&] {
            ASSERT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
            {
                ComPtr<IDispatch> fixture = CreateFixture();
                EXPECT_TRUE(fixture);
                if (fixture)
                    body(fixture.Get());
            }
            CoUninitialize();
        });
        EXPECT_EQ(server.LiveObjects(), before);
    }

    FixtureServer server;
};

TEST_F(CallFixtureServerTest, RegistrationNamesTheServerAndOnlyTheCallLibrary)
{
    EXPECT_NE(server.Path().find("fixture_server.dll"), std::string::npos) << server.Path();
    char model[32] = {};
    DWORD size = sizeof model;
    EXPECT_EQ(RegGetValueA(HKEY_CLASSES_ROOT, (std::string("CLSID\\") + kClassId + "\\InprocServer32").c_str(),
                           "ThreadingModel", RRF_RT_REG_SZ, nullptr, model, &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(model, "Both");

    CLSID classId;
    ASSERT_EQ(CLSIDFromProgID(kProgId, &classId), S_OK);
    EXPECT_TRUE(IsEqualCLSID(classId, GuidOf(kClassId)));

    ComPtr<ITypeLib> library;
    ASSERT_EQ(LoadRegTypeLib(GuidOf(kLibraryId), 1, 0, LOCALE_NEUTRAL, library.Put()), S_OK);
    ComPtr<ITypeInfo> point;
    EXPECT_EQ(library->GetTypeInfoOfGuid(GuidOf(kPointTypeId), point.Put()), S_OK);
    // The catalogue library of resource 1 stays unregistered.
    ComPtr<ITypeLib> catalogue;
    EXPECT_TRUE(FAILED(LoadRegTypeLib(GuidOf("{6A0C5D10-3B1E-4C8A-9F21-6E2C0B7A1D01}"), 1, 0, LOCALE_NEUTRAL,
                                      catalogue.Put())));
}

TEST_F(CallFixtureServerTest, MadeInEitherApartmentAndCounted)
{
    for (DWORD apartment : {COINIT_APARTMENTTHREADED, COINIT_MULTITHREADED}) {
        SCOPED_TRACE(apartment == COINIT_MULTITHREADED ? "multithreaded" : "apartment");
        const long before = server.LiveObjects();
        WithFixture(
            [&](IDispatch* fixture) {
                EXPECT_EQ(server.LiveObjects(), before + 1);
                EXPECT_EQ(RefCount(fixture), 1u);
                ScopedVariant number;
                ASSERT_EQ(CallByName(fixture, L"Number", DISPATCH_PROPERTYGET, {}, number.Get()), S_OK);
                EXPECT_EQ(V_VT(number.Get()), VT_I4);
                EXPECT_EQ(V_I4(number.Get()), kNumber);
            },
            apartment);
    }
}

// Each type three ways: Echo gives the argument back, Ref changes the caller's
// cell, Out writes its known value over a cell that held something else.
TEST_F(CallFixtureServerTest, ScalarsByValueByReferenceAndOut)
{
    struct Row {
        const wchar_t* suffix;
        VARTYPE type;
        const wchar_t* in;
        const wchar_t* afterRef;
        const wchar_t* out;
    };
    const Row rows[] = {
        {L"I1", VT_I1, L"-3", L"-2", L"-5"},
        {L"UI1", VT_UI1, L"250", L"251", L"200"},
        {L"I2", VT_I2, L"-3", L"-2", L"-300"},
        {L"UI2", VT_UI2, L"65000", L"65001", L"60000"},
        {L"I4", VT_I4, L"-3", L"-2", L"-70000"},
        {L"UI4", VT_UI4, L"4000000001", L"4000000002", L"3000000000"},
        {L"Int", VT_INT, L"-3", L"-2", L"-8"},
        {L"UInt", VT_UINT, L"4000000001", L"4000000002", L"4000000000"},
        {L"R4", VT_R4, L"2.5", L"3.5", L"1.5"},
        {L"R8", VT_R8, L"-0.5", L"0.5", L"-2.25"},
        {L"Bool", VT_BOOL, L"-1", L"0", L"-1"},
        {L"Bstr", VT_BSTR, L"abc", L"abc!", L"out text"},
        {L"Cy", VT_CY, L"1.5", L"2.5", L"12.34"},
        {L"Date", VT_DATE, L"45000.25", L"45001.25", L"45351.75"},
        {L"Colour", VT_I4, L"2", L"7", L"7"},  // Green, moved on to Blue
    };
    WithFixture([&](IDispatch* fixture) {
        for (const Row& row : rows) {
            SCOPED_TRACE(Narrow(row.suffix));
            // A date is written as its number.
            const VARTYPE dateAsNumber = row.type == VT_DATE ? VARTYPE{VT_R8} : row.type;
            ScopedVariant argument, result;
            FromText(argument.Get(), row.in, dateAsNumber);
            if (row.type == VT_DATE)
                V_VT(argument.Get()) = VT_DATE;  // the same 8 bytes
            ASSERT_EQ(CallByName(fixture, (std::wstring(L"Echo") + row.suffix).c_str(), DISPATCH_METHOD,
                                 {*argument.Get()}, result.Get()),
                      S_OK);
            EXPECT_EQ(V_VT(result.Get()), row.type);
            EXPECT_EQ(TextOf(*result.Get()), TextOf(*argument.Get()));

            // The cell is the argument's own storage; the call goes through its address.
            ScopedVariant cell;
            FromText(cell.Get(), row.in, dateAsNumber);
            V_VT(cell.Get()) = row.type;
            ASSERT_EQ(CallByName(fixture, (std::wstring(L"Ref") + row.suffix).c_str(), DISPATCH_METHOD,
                                 {MakeVariant(row.type | VT_BYREF, &V_UI1(cell.Get()))}),
                      S_OK);
            ScopedVariant expected;
            FromText(expected.Get(), row.afterRef, dateAsNumber);
            V_VT(expected.Get()) = row.type;
            EXPECT_EQ(TextOf(*cell.Get()), TextOf(*expected.Get()));

            ScopedVariant outCell;
            FromText(outCell.Get(), row.in, dateAsNumber);
            V_VT(outCell.Get()) = row.type;
            if (row.type == VT_BSTR) {  // an [out] BSTR comes in null
                VariantClear(outCell.Get());
                V_VT(outCell.Get()) = VT_BSTR;
            }
            ASSERT_EQ(CallByName(fixture, (std::wstring(L"Out") + row.suffix).c_str(), DISPATCH_METHOD,
                                 {MakeVariant(row.type | VT_BYREF, &V_UI1(outCell.Get()))}),
                      S_OK);
            FromText(expected.Receive(), row.out, dateAsNumber);
            V_VT(expected.Get()) = row.type;
            EXPECT_EQ(TextOf(*outCell.Get()), TextOf(*expected.Get()));
        }
    });
}

TEST_F(CallFixtureServerTest, VariantsByValueByReferenceAndOut)
{
    WithFixture([&](IDispatch* fixture) {
        ScopedVariant argument, result;
        V_VT(argument.Get()) = VT_I4;
        V_I4(argument.Get()) = 5;
        ASSERT_EQ(CallByName(fixture, L"EchoVariant", DISPATCH_METHOD, {*argument.Get()}, result.Get()), S_OK);
        EXPECT_EQ(V_VT(result.Get()), VT_I4);
        EXPECT_EQ(V_I4(result.Get()), 5);

        // Ref turns whatever it gets into its text with a mark.
        ScopedVariant cell;
        V_VT(cell.Get()) = VT_I4;
        V_I4(cell.Get()) = 5;
        ASSERT_EQ(CallByName(fixture, L"RefVariant", DISPATCH_METHOD, {MakeVariant(VT_VARIANT | VT_BYREF, cell.Get())}),
                  S_OK);
        ASSERT_EQ(V_VT(cell.Get()), VT_BSTR);
        EXPECT_STREQ(V_BSTR(cell.Get()), L"5!");

        ScopedVariant outCell;
        ASSERT_EQ(CallByName(fixture, L"OutVariant", DISPATCH_METHOD, {MakeVariant(VT_VARIANT | VT_BYREF, outCell.Get())}),
                  S_OK);
        EXPECT_EQ(V_VT(outCell.Get()), VT_I4);
        EXPECT_EQ(V_I4(outCell.Get()), kOutVariant);

        ASSERT_EQ(CallByName(fixture, L"MakeDecimal", DISPATCH_METHOD, {}, result.Receive()), S_OK);
        ASSERT_EQ(V_VT(result.Get()), VT_DECIMAL);
        double decimal = 0;
        VarR8FromDec(&V_DECIMAL(result.Get()), &decimal);
        EXPECT_EQ(decimal, kDecimal);
    });
}

TEST_F(CallFixtureServerTest, ShapeGivesEachChosenVariant)
{
    const VARTYPE types[ShapeRowCount] = {VT_EMPTY,   VT_NULL,     VT_I1,    VT_UI2,      VT_I8,
                                          VT_BOOL,    VT_I4 | VT_BYREF, VT_DISPATCH, VT_DECIMAL, VT_UNKNOWN,
                                          VT_ERROR,   VT_DATE,     VT_CY,    VT_RECORD};
    WithFixture([&](IDispatch* fixture) {
        for (int which = 0; which < ShapeRowCount; ++which) {
            SCOPED_TRACE(which);
            ScopedVariant argument, result;
            V_VT(argument.Get()) = VT_I4;
            V_I4(argument.Get()) = which;
            ASSERT_EQ(CallByName(fixture, L"Shape", DISPATCH_METHOD, {*argument.Get()}, result.Get()), S_OK);
            ASSERT_EQ(V_VT(result.Get()), types[which]);
            const VARIANT& value = *result.Get();
            switch (which) {
            case ShapeI1:
                EXPECT_EQ(V_I1(&value), -1);
                break;
            case ShapeUI2:
                EXPECT_EQ(V_UI2(&value), kShapeUI2);
                break;
            case ShapeI8:
                EXPECT_EQ(V_I8(&value), kShapeI8);
                break;
            case ShapeBoolOne:
                EXPECT_EQ(V_BOOL(&value), 1);
                break;
            case ShapeI4ByRef:
                EXPECT_EQ(*V_I4REF(&value), kShapeI4Target);
                break;
            case ShapeNullDispatch:
                EXPECT_EQ(V_DISPATCH(&value), nullptr);
                break;
            case ShapeUnknown:
                ASSERT_NE(V_UNKNOWN(&value), nullptr);
                EXPECT_EQ(RefCount(V_UNKNOWN(&value)), 1u);
                break;
            case ShapeError:
                EXPECT_EQ(V_ERROR(&value), kShapeError);
                break;
            case ShapeDate:
                EXPECT_EQ(V_DATE(&value), kOutDate);
                break;
            case ShapeCy:
                EXPECT_EQ(V_CY(&value).int64, kOutCy);
                break;
            case ShapeRecord: {
                GUID type{};
                ASSERT_EQ(V_RECORDINFO(&value)->GetGuid(&type), S_OK);
                EXPECT_TRUE(IsEqualGUID(type, GuidOf(kPointTypeId)));
                const auto* point = static_cast<const LONG*>(V_RECORD(&value));
                EXPECT_EQ(point[0], kPointX);
                EXPECT_EQ(point[1], kPointY);
                break;
            }
            default:
                break;
            }
        }
    });
}

TEST_F(CallFixtureServerTest, RecordsInAndOut)
{
    WithFixture([&](IDispatch* fixture) {
        ComPtr<ITypeLib> library;
        ComPtr<ITypeInfo> pointType;
        ComPtr<IRecordInfo> record;
        ASSERT_EQ(LoadRegTypeLib(GuidOf(kLibraryId), 1, 0, LOCALE_NEUTRAL, library.Put()), S_OK);
        ASSERT_EQ(library->GetTypeInfoOfGuid(GuidOf(kPointTypeId), pointType.Put()), S_OK);
        ASSERT_EQ(GetRecordInfoFromTypeInfo(pointType.Get(), record.Put()), S_OK);

        ScopedVariant point, sum;
        V_VT(point.Get()) = VT_RECORD;
        V_RECORD(point.Get()) = record->RecordCreate();
        // Written directly: Wine's PutField converts into an uninitialised VARIANT.
        static_cast<LONG*>(V_RECORD(point.Get()))[0] = 30;
        static_cast<LONG*>(V_RECORD(point.Get()))[1] = 12;
        V_RECORDINFO(point.Get()) = record.Detach();
        ASSERT_EQ(CallByName(fixture, L"SumPoint", DISPATCH_METHOD, {*point.Get()}, sum.Get()), S_OK);
        EXPECT_EQ(V_VT(sum.Get()), VT_I4);
        EXPECT_EQ(V_I4(sum.Get()), 42);

        ScopedVariant x, y, made;
        V_VT(x.Get()) = VT_I4;
        V_I4(x.Get()) = 5;
        V_VT(y.Get()) = VT_I4;
        V_I4(y.Get()) = -6;
        ASSERT_EQ(CallByName(fixture, L"MakePoint", DISPATCH_METHOD, {*x.Get(), *y.Get()}, made.Get()), S_OK);
        ASSERT_EQ(V_VT(made.Get()), VT_RECORD);
        ScopedVariant read;
        ASSERT_EQ(V_RECORDINFO(made.Get())->GetField(V_RECORD(made.Get()), L"y", read.Get()), S_OK);
        EXPECT_EQ(V_I4(read.Get()), -6);
    });
}

TEST_F(CallFixtureServerTest, LastCallRecordsWhatReachedInvoke)
{
    WithFixture([&](IDispatch* fixture) {
        ScopedVariant row, column, value, text, flag, number;
        V_VT(row.Get()) = VT_I4;
        V_I4(row.Get()) = 1;
        V_VT(column.Get()) = VT_I2;
        V_I2(column.Get()) = 2;
        V_VT(value.Get()) = VT_R8;
        V_R8(value.Get()) = 3;
        ASSERT_EQ(CallByName(fixture, L"Cell", DISPATCH_PROPERTYPUT, {*row.Get(), *column.Get(), *value.Get()}), S_OK);
        // The value, named DISPID_PROPERTYPUT, comes first in the block.
        EXPECT_EQ(LastCall(fixture), L"flags=4 args=3 named=[-3] vt=[0005,0002,0003]");
        EXPECT_EQ(LastCall(fixture), L"flags=4 args=3 named=[-3] vt=[0005,0002,0003]");
        ASSERT_EQ(CallByName(fixture, L"Cell", DISPATCH_PROPERTYGET, {*row.Get(), *column.Get()}, number.Get()), S_OK);
        EXPECT_EQ(V_I4(number.Get()), 3);

        ASSERT_EQ(CallByName(fixture, L"Number", DISPATCH_PROPERTYGET, {}, number.Receive()), S_OK);
        EXPECT_EQ(LastCall(fixture), L"flags=2 args=0 named=[] vt=[]");

        V_VT(text.Get()) = VT_BSTR;
        V_BSTR(text.Get()) = SysAllocString(L"abc");
        V_VT(flag.Get()) = VT_BOOL;
        V_BOOL(flag.Get()) = VARIANT_TRUE;
        ASSERT_EQ(CallByName(fixture, L"Four", DISPATCH_METHOD, {*row.Get(), *text.Get(), *value.Get(), *flag.Get()},
                             number.Receive()),
                  S_OK);
        EXPECT_EQ(V_I4(number.Get()), 1 + 3 + 3 + 1000);
        EXPECT_EQ(LastCall(fixture), L"flags=1 args=4 named=[] vt=[000b,0005,0008,0003]");
    });
}

TEST_F(CallFixtureServerTest, FailuresCarryTheirTexts)
{
    WithFixture([&](IDispatch* fixture) {
        for (int mode : {0, 1}) {
            SCOPED_TRACE(mode);
            ScopedVariant argument;
            V_VT(argument.Get()) = VT_I4;
            V_I4(argument.Get()) = mode;
            ScopedExcepInfo first;
            ASSERT_EQ(CallByName(fixture, L"FailDeferred", DISPATCH_METHOD, {*argument.Get()}, nullptr, first.Get()),
                      DISP_E_EXCEPTION);
            EXPECT_STREQ(first->bstrSource, kEarlySource);
            EXPECT_STREQ(first->bstrDescription, kEarlyDescription);
            ASSERT_NE(first->pfnDeferredFillIn, nullptr);
            ScopedExcepInfo second;
            if (mode == 0) {
                EXPECT_EQ(first->pfnDeferredFillIn(second.Get()), S_OK);
                EXPECT_STREQ(second->bstrSource, kDeferredSource);
                EXPECT_STREQ(second->bstrDescription, kDeferredDescription);
            } else {
                EXPECT_TRUE(FAILED(first->pfnDeferredFillIn(second.Get())));
                EXPECT_EQ(second->bstrSource, nullptr);
            }
        }

        ScopedExcepInfo notImplemented;
        ASSERT_EQ(CallByName(fixture, L"NotImplemented", DISPATCH_METHOD, {}, nullptr, notImplemented.Get()),
                  DISP_E_EXCEPTION);
        EXPECT_EQ(notImplemented->scode, E_NOTIMPL);
        EXPECT_STREQ(notImplemented->bstrSource, kNotImplementedSource);
        EXPECT_STREQ(notImplemented->bstrDescription, kNotImplementedDescription);

        // The garbage reaches the caller's cells although the call fails.
        LONG a = 1;
        double b = 2;
        ScopedExcepInfo garbage;
        ASSERT_EQ(CallByName(fixture, L"FailWithGarbage", DISPATCH_METHOD,
                             {MakeVariant(VT_I4 | VT_BYREF, &a), MakeVariant(VT_R8 | VT_BYREF, &b)}, nullptr,
                             garbage.Get()),
                  DISP_E_EXCEPTION);
        EXPECT_EQ(a, kGarbageLong);
        EXPECT_EQ(b, kGarbageDouble);
        EXPECT_EQ(garbage->scode, E_FAIL);
        EXPECT_STREQ(garbage->bstrSource, kGarbageSource);

        bool thrown = false;
        try {
            CallByName(fixture, L"Throw", DISPATCH_METHOD, {});
        } catch (...) {
            thrown = true;
        }
        EXPECT_TRUE(thrown);
    });
}

TEST_F(CallFixtureServerTest, ObjectReferencesBalance)
{
    WithFixture([&](IDispatch* fixture) {
        const long base = server.LiveObjects();
        ScopedVariant made;
        ASSERT_EQ(CallByName(fixture, L"MakeChild", DISPATCH_METHOD, {}, made.Get()), S_OK);
        ASSERT_EQ(V_VT(made.Get()), VT_DISPATCH);
        IDispatch* child = V_DISPATCH(made.Get());
        EXPECT_EQ(RefCount(child), 1u);
        EXPECT_EQ(server.LiveObjects(), base + 1);

        // Taken [in]: the fixture answers its Id and keeps nothing.
        ScopedVariant id, other;
        ASSERT_EQ(CallByName(child, L"Id", DISPATCH_PROPERTYGET, {}, other.Get()), S_OK);
        ASSERT_EQ(CallByName(fixture, L"ChildId", DISPATCH_METHOD, {*made.Get()}, id.Get()), S_OK);
        EXPECT_EQ(V_I4(id.Get()), V_I4(other.Get()));
        EXPECT_EQ(RefCount(child), 1u);

        // Held until dropped, as the target is until replaced.
        ASSERT_EQ(CallByName(fixture, L"Hold", DISPATCH_METHOD, {*made.Get()}), S_OK);
        EXPECT_EQ(RefCount(child), 2u);
        ASSERT_EQ(CallByName(fixture, L"DropHeld", DISPATCH_METHOD, {}), S_OK);
        EXPECT_EQ(RefCount(child), 1u);
        ASSERT_EQ(CallByName(fixture, L"Target", DISPATCH_PROPERTYPUTREF, {*made.Get()}), S_OK);
        EXPECT_EQ(RefCount(child), 2u);
        ScopedVariant nothing;
        V_VT(nothing.Get()) = VT_DISPATCH;
        ASSERT_EQ(CallByName(fixture, L"Target", DISPATCH_PROPERTYPUTREF, {*nothing.Get()}), S_OK);
        EXPECT_EQ(RefCount(child), 1u);

        // [in,out]: the reference that went in is released, a new child comes out.
        child->AddRef();
        IDispatch* cell = child;
        ASSERT_EQ(CallByName(fixture, L"RefDispatch", DISPATCH_METHOD, {MakeVariant(VT_DISPATCH | VT_BYREF, &cell)}),
                  S_OK);
        EXPECT_NE(cell, child);
        EXPECT_EQ(RefCount(child), 1u);
        EXPECT_EQ(RefCount(cell), 1u);
        EXPECT_EQ(server.LiveObjects(), base + 2);
        cell->Release();

        IUnknown* unknownCell = nullptr;
        ASSERT_EQ(CallByName(fixture, L"OutUnknown", DISPATCH_METHOD, {MakeVariant(VT_UNKNOWN | VT_BYREF, &unknownCell)}),
                  S_OK);
        ASSERT_NE(unknownCell, nullptr);
        EXPECT_EQ(RefCount(unknownCell), 1u);
        unknownCell->Release();

        ASSERT_EQ(CallByName(fixture, L"NullChild", DISPATCH_METHOD, {}, made.Receive()), S_OK);
        EXPECT_EQ(V_VT(made.Get()), VT_DISPATCH);
        EXPECT_EQ(V_DISPATCH(made.Get()), nullptr);
        EXPECT_EQ(server.LiveObjects(), base);
    });
}

}  // namespace
