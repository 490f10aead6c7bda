// Calls through the module's handler on the call fixture: how an object is
// opened, what Execute answers in every case, and what reaches Invoke.

#include <windows.h>
#include <oleauto.h>

#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/support/counting_dispatch.h"

using namespace MetaObj;
using namespace FixtureValues;

namespace {

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

constexpr wchar_t kUntouched[] = L"untouched";
constexpr wchar_t kSucceeded[] = L"COM Method call succeeded";

using CallStatusTest = CallTest;

TEST_F(CallStatusTest, OpensByEveryRoadInItsOrder)
{
    const std::string progId = std::string("COM://") + kProgIdNarrow;
    const wchar_t* const byMoniker = L"new:5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C20";
    struct Row {
        const char* label;
        std::string identity;
        const wchar_t* moniker;
        bool useRunningObject;
        const char* denied;  // the name the host refuses, if any
        MetaStatus status;
    };
    const Row rows[] = {
        {"ProgID through the class factory", progId, nullptr, false, nullptr, MetaStatusOk},
        {"class identifier as the name", "COM://" + std::string(kClassId).substr(1, 36), nullptr, false, nullptr,
         MetaStatusOk},
        {"new: moniker", progId, byMoniker, false, nullptr, MetaStatusOk},
        {"a moniker wins over the running object", "COM://No.Such.Class", byMoniker, true, nullptr, MetaStatusOk},
        {"a moniker that doesn't parse", progId, L"::not a moniker::", false, nullptr, MetaStatusNoObject},
        {"no running instance", progId, nullptr, true, nullptr, MetaStatusNoObject},
        {"unknown class", "COM://No.Such.Class", nullptr, false, nullptr, MetaStatusNoObject},
        {"running object of an unknown class", "COM://No.Such.Class", nullptr, true, nullptr, MetaStatusBadIdentity},
        {"identity without a scheme", kProgIdNarrow, nullptr, false, nullptr, MetaStatusBadIdentity},
        {"no delimiter even with a moniker", kProgIdNarrow, byMoniker, false, nullptr, MetaStatusBadIdentity},
        {"refused by the host: nothing is made", progId, nullptr, false, kProgIdNarrow, MetaStatusDenied},
        {"a refusing host comes first, even for a broken identity", "no delimiter", nullptr, false, "",
         MetaStatusDenied},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            row.denied ? host.Deny(row.denied) : host.AllowAll();
            CObjectOpenParams params;
            if (row.moniker)
                params.moniker = CMetaString(row.moniker);
            params.useRunningObject = row.useRunningObject ? 1 : 0;
            CMetaObjectHandler* handler = module->GetHandlerObject();
            EXPECT_EQ(handler->Open(row.identity.c_str(), row.moniker || row.useRunningObject ? &params : nullptr),
                      row.status);
            EXPECT_EQ(handler->IsOpen(), row.status == MetaStatusOk);
            if (row.status == MetaStatusOk) {
                EXPECT_EQ(handler->identity.GetText(), row.identity);
            }
            EXPECT_EQ(server.LiveObjects(), before + (row.status == MetaStatusOk ? 1 : 0));
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            EXPECT_EQ(server.LiveObjects(), before);
        }
        host.AllowAll();

        // A registered running instance is the one attached.
        ComPtr<IDispatch> running;
        CLSID classId;
        ASSERT_EQ(CLSIDFromProgID(kProgId, &classId), S_OK);
        ASSERT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, running.PutVoid()), S_OK);
        DWORD cookie = 0;
        ASSERT_EQ(RegisterActiveObject(running.Get(), classId, ACTIVEOBJECT_STRONG, &cookie), S_OK);
        CObjectOpenParams params;
        params.useRunningObject = 1;
        CMetaObjectHandler* handler = module->GetHandlerObject();
        EXPECT_EQ(handler->Open(progId.c_str(), &params), MetaStatusOk);
        EXPECT_EQ(handler->GetDispatchPointer(), running.Get());
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        RevokeActiveObject(cookie, nullptr);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
    EXPECT_EQ(server.LiveObjects(), before);
}

TEST_F(CallStatusTest, ExecuteAnswersEachCase)
{
    enum class Gives { NoItem, NullItem, AnItem };
    struct Row {
        const char* label;
        const wchar_t* key;
        std::function<std::vector<Param>()> params;
        MetaStatus status;
        std::uint32_t code;
        const wchar_t* description;
        const wchar_t* source;
        bool invoked;
        Gives result;
    };
    const auto none = [] { return std::vector<Param>(); };
    const MetaStatus failed = MetaStatusInvokeFailed;
    const Row rows[] = {
        {"unknown member", L"Invoke:NoSuchMember", none, failed, kUntouchedCode, kUntouched, kUntouched, false,
         Gives::NoItem},
        {"key without a colon", L"Number", none, failed, kUntouchedCode, kUntouched, kUntouched, false, Gives::NoItem},
        {"enumeration value outside its type", L"Invoke:EchoColour", [] { return ParamList(Colour(3)); }, failed,
         65535, L"Illegal enum value", L"Parameter Validation Error", false, Gives::NoItem},
        {"enumeration type without values", L"Invoke:EchoColour", [] { return ParamList(Colour(2, false)); }, failed,
         65535, L"Illegal enum value", L"Parameter Validation Error", false, Gives::NoItem},
        {"an out enumeration is not validated", L"Invoke:OutColour", [] { return ParamList(ByRef(Colour(3), kOut)); },
         MetaStatusOk, 1, kSucceeded, kUntouched, true, Gives::NullItem},
        {"a parameter without translation", L"Invoke:EchoI4", [] { return ParamList(Int(1, L"VT_I8")); }, failed,
         kUntouchedCode, kUntouched, kUntouched, false, Gives::NoItem},
        {"E_NOTIMPL", L"Invoke:NotImplemented", none, failed, 1, kNotImplementedDescription, kNotImplementedSource,
         true, Gives::NoItem},
        {"another failure with the object's texts", L"Invoke:FailWithGarbage",
         [] { return ParamList(ByRef(Int(1), kOut), ByRef(Real(2), kOut)); }, failed, 65535, kGarbageDescription,
         kGarbageSource, true, Gives::NoItem},
        {"a failure without texts: too few arguments", L"Invoke:EchoI4", none, failed, 65535, kUntouched, kUntouched,
         true, Gives::NoItem},
        {"deferred fill-in: its texts win", L"Invoke:FailDeferred", [] { return ParamList(Int(0)); }, failed, 65535,
         kDeferredDescription, kDeferredSource, true, Gives::NoItem},
        {"deferred fill-in fails: the first texts stay", L"Invoke:FailDeferred", [] { return ParamList(Int(1)); },
         failed, 65535, kEarlyDescription, kEarlySource, true, Gives::NoItem},
        {"a C++ exception out of Invoke", L"Invoke:Throw", none, failed, kUntouchedCode, kUntouched, kUntouched, true,
         Gives::NoItem},
        {"success", L"Get:Number", none, MetaStatusOk, 1, kSucceeded, kUntouched, true, Gives::AnItem},
        {"a VT_EMPTY result is a null item", L"Invoke:Shape", [] { return ParamList(Int(ShapeEmpty)); },
         MetaStatusOk, 1, kSucceeded, kUntouched, true, Gives::NullItem},
        {"a method without a result", L"Invoke:DropHeld", none, MetaStatusOk, 1, kSucceeded, kUntouched, true,
         Gives::NullItem},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            // A call no row makes, so that whether Invoke ran shows in the record of the last call.
            const std::vector<Param> cell = ParamList(Int(1), Int(2));
            ASSERT_EQ(Call(handler, L"Get:Cell", Items(cell)).status, MetaStatusOk);
            const std::string before = LastCall(handler);

            const std::vector<Param> params = row.params();
            const Outcome outcome = Call(handler, row.key, Items(params));
            EXPECT_EQ(outcome.status, row.status);
            EXPECT_EQ(outcome.record.code, row.code);
            EXPECT_EQ(Wide(outcome.record.description), row.description);
            EXPECT_EQ(Wide(outcome.record.source), row.source);
            EXPECT_EQ(LastCall(handler) != before, row.invoked);
            EXPECT_EQ(outcome.result != nullptr, row.result == Gives::AnItem);
        }
    });
}

TEST_F(CallStatusTest, AHandlerWithoutAnObjectMakesACallThatFails)
{
    RunInitialised([&] {
        CMetaObjectHandler* handler = module->GetHandlerObject();
        CCOMMethodInvoke* slot = nullptr;
        EXPECT_EQ(handler->CreateMethodInvoke(&slot, CMetaString(L"Get:Number")), MetaStatusOk);
        CMethodInvokeStatus record;
        CMetaObjectItem* result = nullptr;
        EXPECT_EQ(handler->ExecuteInvoke(&slot, &record, &result), MetaStatusInvokeFailed);
        EXPECT_EQ(record.code, 0u);
        EXPECT_EQ(result, nullptr);
        handler->FreeMethodInvoke(&slot);
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
}

TEST_F(CallStatusTest, WhatReachesInvoke)
{
    CCountingDispatch object;
    struct Row {
        const char* label;
        const wchar_t* key;
        std::function<std::vector<Param>()> params;
        const char* lastCall;
    };
    const auto none = [] { return std::vector<Param>(); };
    const Row rows[] = {
        {"a method: the first parameter lies last", L"Invoke:Four",
         [] { return ParamList(Int(1), Text(L"abc"), Real(2.5), Bool(1)); },
         "flags=1 args=4 named=[] vt=[000b,0005,0008,0003]"},
        {"a get with arguments", L"Get:Cell", [] { return ParamList(Int(1), Int(2, L"VT_I2")); },
         "flags=2 args=2 named=[] vt=[0002,0003]"},
        {"a put names its value, which lies first", L"Set:Cell",
         [] { return ParamList(Int(1), Int(2, L"VT_I2"), Real(3)); }, "flags=4 args=3 named=[-3] vt=[0005,0002,0003]"},
        {"a put without arguments still names one", L"Set:Cell", none, "flags=4 args=0 named=[-3] vt=[]"},
        {"a put by reference", L"Setref:Target", [&] { return ParamList(ObjectItem(&object)); },
         "flags=8 args=1 named=[-3] vt=[0009]"},
        {"in/out goes by reference", L"Invoke:RefI4", [] { return ParamList(ByRef(Int(1), kInOut)); },
         "flags=1 args=1 named=[] vt=[4003]"},
        {"an omitted optional argument", L"Invoke:EchoI4",
         [] {
             Param omitted = Int(1);
             omitted->SetOptional(1);
             omitted->SetOmitted(1);
             return ParamList(std::move(omitted));
         },
         "flags=1 args=1 named=[] vt=[000a]"},
        {"a null object tag", L"Invoke:EchoI4",
         [] {
             Param tagged = Int(1);
             tagged->SetTagText(CMetaString(L"<@NULLOBJECT>"));
             return ParamList(std::move(tagged));
         },
         "flags=1 args=1 named=[] vt=[0001]"},
        {"text to a VARIANT parameter", L"Invoke:EchoVariant", [] { return ParamList(Text(L"x", L"VT_VARIANT")); },
         "flags=1 args=1 named=[] vt=[0008]"},
        {"an enumeration goes as VT_I4", L"Invoke:EchoColour", [] { return ParamList(Colour(2)); },
         "flags=1 args=1 named=[] vt=[0003]"},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const std::vector<Param> params = row.params();
            Call(handler, row.key, Items(params));
            EXPECT_EQ(LastCall(handler), row.lastCall);
        }
        // Reading the record leaves it standing.
        EXPECT_EQ(LastCall(handler), rows[std::size(rows) - 1].lastCall);
        EXPECT_EQ(Call(handler, L"Invoke:DropHeld").status, MetaStatusOk);
    });
    EXPECT_EQ(object.References(), 1);
}

TEST_F(CallStatusTest, ParametersAddUpAndACallRunsAgain)
{
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        const Param a = Int(1), b = Text(L"abc"), c = Real(2.5), d = Bool(1);
        CCOMMethodInvoke* slot = nullptr;
        ASSERT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(L"Invoke:Four")), MetaStatusOk);
        CItemList first{a.get(), b.get()}, second{c.get(), d.get()};
        EXPECT_EQ(handler.SetInvokeParams(&slot, first), MetaStatusOk);
        EXPECT_EQ(handler.SetInvokeParams(&slot, second), MetaStatusOk);
        CMethodInvokeStatus record;
        CMetaObjectItem* result = nullptr;
        ASSERT_EQ(handler.ExecuteInvoke(&slot, &record, &result), MetaStatusOk);
        Result sum(result, ResultDeleter{&handler});
        ASSERT_NE(dynamic_cast<CMetaObjectInt*>(sum.get()), nullptr);
        EXPECT_EQ(static_cast<CMetaObjectInt*>(sum.get())->value, 1 + 3 + 2 + 1000);

        // A new call in a used slot frees the old one; a call object run again
        // reads its items again.
        const Param counter = ByRef(Int(1), kInOut);
        ASSERT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(L"Invoke:RefI4")), MetaStatusOk);
        CItemList one{counter.get()};
        EXPECT_EQ(handler.SetInvokeParams(&slot, one), MetaStatusOk);
        for (std::int32_t expected : {2, 3}) {
            EXPECT_EQ(handler.ExecuteInvoke(&slot, &record, nullptr), MetaStatusOk);
            EXPECT_EQ(static_cast<CMetaObjectInt*>(counter.get())->value, expected);
        }
        handler.FreeMethodInvoke(&slot);
    });
}

}  // namespace
