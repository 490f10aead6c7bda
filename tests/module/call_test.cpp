// Calls through the module's handler on the call fixture: how the fixture is
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
#include "tests/support/dispatch_call.h"

using namespace MetaObj;
using namespace FixtureValues;

namespace {

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

constexpr wchar_t kUntouched[] = L"untouched";
constexpr wchar_t kSucceeded[] = L"COM Method call succeeded";

using Params = std::function<std::vector<Param>()>;

using CallStatusTest = CallTest;

TEST_F(CallStatusTest, OpensTheFixtureByEveryRoad)
{
    const std::string classText = std::string(kClassId).substr(1, 36);
    struct Row {
        const char* label;
        std::string identity;
        const wchar_t* moniker;
        bool useRunningObject;
        MetaStatus status;
    };
    const Row rows[] = {
        {"ProgID through the class factory", std::string("COM://") + kProgIdNarrow, nullptr, false, MetaStatusOk},
        {"class identifier as the name", "COM://" + classText, nullptr, false, MetaStatusOk},
        {"new: moniker", std::string("COM://") + kProgIdNarrow, L"new:5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C20", false,
         MetaStatusOk},
        {"a moniker wins over the running object", "COM://No.Such.Class", L"new:5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C20",
         true, MetaStatusOk},
        {"no running instance", std::string("COM://") + kProgIdNarrow, nullptr, true, MetaStatusNoObject},
        {"unknown class", "COM://No.Such.Class", nullptr, false, MetaStatusNoObject},
        {"running object of an unknown class", "COM://No.Such.Class", nullptr, true, MetaStatusBadIdentity},
        {"identity without a scheme", kProgIdNarrow, nullptr, false, MetaStatusBadIdentity},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            CObjectOpenParams params;
            if (row.moniker)
                params.moniker = CMetaString(row.moniker);
            params.useRunningObject = row.useRunningObject ? 1 : 0;
            CMetaObjectHandler* handler = module->GetHandlerObject();
            EXPECT_EQ(handler->Open(row.identity.c_str(), &params), row.status);
            EXPECT_EQ(handler->IsOpen(), row.status == MetaStatusOk);
            EXPECT_EQ(server.LiveObjects(), before + (row.status == MetaStatusOk ? 1 : 0));
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            EXPECT_EQ(server.LiveObjects(), before);
        }

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
        EXPECT_EQ(handler->Open((std::string("COM://") + kProgIdNarrow).c_str(), &params), MetaStatusOk);
        EXPECT_EQ(handler->GetDispatchPointer(), running.Get());
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        RevokeActiveObject(cookie, nullptr);

        // Refused by the host: nothing is made.
        host.Deny(kProgIdNarrow);
        handler = module->GetHandlerObject();
        EXPECT_EQ(handler->Open((std::string("COM://") + kProgIdNarrow).c_str(), nullptr), MetaStatusDenied);
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.AllowAll();
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
        Params params;
        MetaStatus status;
        std::uint32_t code;
        const wchar_t* description;
        const wchar_t* source;
        bool invoked;
        Gives result;
    };
    const auto none = [] { return std::vector<Param>(); };
    auto one = [](std::function<Param()> make) {
        return [make] {
            std::vector<Param> params;
            params.push_back(make());
            return params;
        };
    };
    const Row rows[] = {
        {"unknown member", L"Invoke:NoSuchMember", none, MetaStatusInvokeFailed, kUntouchedCode, kUntouched,
         kUntouched, false, Gives::NoItem},
        {"key without a colon", L"Number", none, MetaStatusInvokeFailed, kUntouchedCode, kUntouched, kUntouched,
         false, Gives::NoItem},
        {"enumeration value outside its type", L"Invoke:EchoColour", one([] { return Colour(3); }),
         MetaStatusInvokeFailed, 65535, L"Illegal enum value", L"Parameter Validation Error", false, Gives::NoItem},
        {"enumeration type without values", L"Invoke:EchoColour", one([] { return Colour(2, false); }),
         MetaStatusInvokeFailed, 65535, L"Illegal enum value", L"Parameter Validation Error", false, Gives::NoItem},
        {"an out enumeration is not validated", L"Invoke:OutColour", one([] { return ByRef(Colour(3), kOut); }),
         MetaStatusOk, 1, kSucceeded, kUntouched, true, Gives::NullItem},
        {"a parameter without translation", L"Invoke:EchoI4", one([] { return Int(1, L"VT_I8"); }),
         MetaStatusInvokeFailed, kUntouchedCode, kUntouched, kUntouched, false, Gives::NoItem},
        {"E_NOTIMPL", L"Invoke:NotImplemented", none, MetaStatusInvokeFailed, 1, kNotImplementedDescription,
         kNotImplementedSource, true, Gives::NoItem},
        {"another failure with the object's texts", L"Invoke:FailWithGarbage",
         [] {
             std::vector<Param> params;
             params.push_back(ByRef(Int(1), kOut));
             params.push_back(ByRef(Real(2), kOut));
             return params;
         },
         MetaStatusInvokeFailed, 65535, kGarbageDescription, kGarbageSource, true, Gives::NoItem},
        {"a failure without texts: too few arguments", L"Invoke:EchoI4", none, MetaStatusInvokeFailed, 65535,
         kUntouched, kUntouched, true, Gives::NoItem},
        {"deferred fill-in: its texts win", L"Invoke:FailDeferred", one([] { return Int(0); }),
         MetaStatusInvokeFailed, 65535, kDeferredDescription, kDeferredSource, true, Gives::NoItem},
        {"deferred fill-in fails: the first texts stay", L"Invoke:FailDeferred", one([] { return Int(1); }),
         MetaStatusInvokeFailed, 65535, kEarlyDescription, kEarlySource, true, Gives::NoItem},
        {"a C++ exception out of Invoke", L"Invoke:Throw", none, MetaStatusInvokeFailed, kUntouchedCode, kUntouched,
         kUntouched, true, Gives::NoItem},
        {"success", L"Get:Count", none, MetaStatusOk, 1, kSucceeded, kUntouched, true, Gives::AnItem},
        {"a VT_EMPTY result is a null item", L"Invoke:Shape", one([] { return Int(ShapeEmpty); }), MetaStatusOk, 1,
         kSucceeded, kUntouched, true, Gives::NullItem},
        {"a method without a result", L"Invoke:DropHeld", none, MetaStatusOk, 1, kSucceeded, kUntouched, true,
         Gives::NullItem},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            // A call no row makes, so that whether Invoke ran shows in the record of the last call.
            const Param count = Int(5);
            ASSERT_EQ(Call(handler, L"Set:Count", {count.get()}).status, MetaStatusOk);
            const std::string before = LastCall(handler);

            const std::vector<Param> params = row.params();
            const Outcome outcome = Call(handler, row.key, Items(params));
            EXPECT_EQ(outcome.status, row.status);
            EXPECT_EQ(outcome.record.code, row.code);
            EXPECT_EQ(Wide(outcome.record.description), row.description);
            EXPECT_EQ(Wide(outcome.record.source), row.source);
            EXPECT_EQ(LastCall(handler) != before, row.invoked);
            if (row.result == Gives::AnItem)
                EXPECT_NE(outcome.result, nullptr);
            else
                EXPECT_EQ(outcome.result, nullptr);
        }
    });
}

TEST_F(CallStatusTest, WithoutAResultPointerTheValueIsDropped)
{
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        const long before = server.LiveObjects();
        const Outcome outcome = Call(handler, L"Invoke:MakeChild", {}, false);
        EXPECT_EQ(outcome.status, MetaStatusOk);
        EXPECT_EQ(outcome.record.code, 1u);
        EXPECT_EQ(server.LiveObjects(), before);
    });
}

TEST_F(CallStatusTest, AHandlerWithoutAnObjectMakesACallThatFails)
{
    RunInitialised([&] {
        CMetaObjectHandler* handler = module->GetHandlerObject();
        CCOMMethodInvoke* slot = nullptr;
        EXPECT_EQ(handler->CreateMethodInvoke(&slot, CMetaString(L"Get:Number")), MetaStatusOk);
        EXPECT_NE(slot, nullptr);
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
    struct Row {
        const char* label;
        const wchar_t* key;
        std::function<std::vector<Param>(CMetaObjectCOMHandler&)> params;
        const char* lastCall;
    };
    auto items = [](std::function<void(std::vector<Param>&)> fill) {
        return [fill](CMetaObjectCOMHandler&) {
            std::vector<Param> params;
            fill(params);
            return params;
        };
    };
    const Row rows[] = {
        {"a method: the first parameter lies last", L"Invoke:Four",
         items([](std::vector<Param>& p) {
             p.push_back(Int(1));
             p.push_back(Text(L"abc"));
             p.push_back(Real(2.5));
             p.push_back(Bool(1));
         }),
         "flags=1 args=4 named=[] vt=[000b,0005,0008,0003]"},
        {"a get without arguments", L"Get:Number", items([](std::vector<Param>&) {}),
         "flags=2 args=0 named=[] vt=[]"},
        {"a get with arguments", L"Get:Cell",
         items([](std::vector<Param>& p) {
             p.push_back(Int(1));
             p.push_back(Int(2, L"VT_I2"));
         }),
         "flags=2 args=2 named=[] vt=[0002,0003]"},
        {"a put names its value, which lies first", L"Set:Cell",
         items([](std::vector<Param>& p) {
             p.push_back(Int(1));
             p.push_back(Int(2, L"VT_I2"));
             p.push_back(Real(3));
         }),
         "flags=4 args=3 named=[-3] vt=[0005,0002,0003]"},
        {"a put without arguments still names one", L"Set:Count", items([](std::vector<Param>&) {}),
         "flags=4 args=0 named=[-3] vt=[]"},
        {"a put by reference", L"Setref:Target",
         [this](CMetaObjectCOMHandler& handler) {
             ScopedVariant child;
             CallByName(handler.GetDispatchPointer(), L"MakeChild", DISPATCH_METHOD, {}, child.Get());
             std::vector<Param> params;
             params.push_back(ObjectItem(V_DISPATCH(child.Get())));
             return params;
         },
         "flags=8 args=1 named=[-3] vt=[0009]"},
        {"in/out goes by reference", L"Invoke:RefI4",
         items([](std::vector<Param>& p) { p.push_back(ByRef(Int(1), kInOut)); }),
         "flags=1 args=1 named=[] vt=[4003]"},
        {"an omitted optional argument", L"Invoke:EchoI4",
         items([](std::vector<Param>& p) {
             p.push_back(Int(1));
             p.back()->SetOptional(1);
             p.back()->SetOmitted(1);
         }),
         "flags=1 args=1 named=[] vt=[000a]"},
        {"a null object tag", L"Invoke:EchoI4",
         items([](std::vector<Param>& p) {
             p.push_back(Int(1));
             p.back()->SetTagText(CMetaString(L"<@NULLOBJECT>"));
         }),
         "flags=1 args=1 named=[] vt=[0001]"},
        {"text to a VARIANT parameter", L"Invoke:EchoVariant",
         items([](std::vector<Param>& p) { p.push_back(Text(L"x", L"VT_VARIANT")); }),
         "flags=1 args=1 named=[] vt=[0008]"},
        {"an enumeration goes as VT_I4", L"Invoke:EchoColour",
         items([](std::vector<Param>& p) { p.push_back(Colour(2)); }), "flags=1 args=1 named=[] vt=[0003]"},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const std::vector<Param> params = row.params(handler);
            Call(handler, row.key, Items(params));
            EXPECT_EQ(LastCall(handler), row.lastCall);
        }
        // Reading the record leaves it standing.
        EXPECT_EQ(LastCall(handler), rows[std::size(rows) - 1].lastCall);
    });
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
        handler.FreeMethodInvoke(&slot);

        // The same call object again reads its items again.
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
