// The call fixture by raw COM: registered in the prefix, created by its ProgID
// in either apartment. What it answers to calls is shown through the module.

#include <gtest/gtest.h>

#include <objbase.h>
#include <oleauto.h>

#include <functional>
#include <string>

#include "platform/platform_handles.h"
#include "tests/module/module_fixture.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/dispatch_call.h"
#include "tests/support/fixture_server.h"

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

}  // namespace
