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

using CallStatusTest = CallTest;
using MakeParams = std::function<std::vector<Param>()>;

// Malformed identities and running objects of no class are the hostile tests'.
TEST_F(CallStatusTest, OpensByEveryRoadInItsOrder)
{
    const std::string progId = std::string("COM://") + kProgIdNarrow;
    const wchar_t* const byMoniker = L"new:5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C20";
    const struct {
        const char* label;
        std::string identity;
        const wchar_t* moniker;
        bool useRunningObject;
        const char* denied;  // the name the host refuses, if any
        MetaStatus status;
    } rows[] = {
        {"ProgID through the class factory", progId, nullptr, false, nullptr, MetaStatusOk},
        {"a moniker wins over the running object", "COM://No.Such.Class", byMoniker, true, nullptr, MetaStatusOk},
        {"a moniker that doesn't parse", progId, L"::not a moniker::", false, nullptr, MetaStatusNoObject},
        {"unknown class", "COM://No.Such.Class", nullptr, false, nullptr, MetaStatusNoObject},
        {"refused by the host: nothing is made", progId, nullptr, false, kProgIdNarrow, MetaStatusDenied},
        {"a refusing host comes first", "no delimiter", nullptr, false, "", MetaStatusDenied},
        {"the registered running instance", progId, nullptr, true, nullptr, MetaStatusOk},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        // Registered only now, so that no row before the last finds it.
        ComPtr<IDispatch> running;
        CLSID classId;
        DWORD cookie = 0;
        ASSERT_EQ(CLSIDFromProgID(kProgId, &classId), S_OK);
        ASSERT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, running.PutVoid()), S_OK);
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            row.denied ? host.Deny(row.denied) : host.AllowAll();
            const bool last = &row == std::end(rows) - 1;
            if (last) {
                ASSERT_EQ(RegisterActiveObject(running.Get(), classId, ACTIVEOBJECT_STRONG, &cookie), S_OK);
            }
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
                EXPECT_EQ(handler->GetDispatchPointer() == running.Get(), last);
            } else {  // a handler without an object makes calls that fail
                const Outcome call = Call(*static_cast<CMetaObjectCOMHandler*>(handler), L"Get:Number");
                EXPECT_EQ(call.status, MetaStatusInvokeFailed);
                EXPECT_TRUE(call.record.code == kUntouchedCode && !call.result);
            }
            EXPECT_EQ(server.LiveObjects(), before + 1 + (row.status == MetaStatusOk && !last ? 1 : 0));
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
        }
        RevokeActiveObject(cookie, nullptr);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
    EXPECT_EQ(server.LiveObjects(), before);
}

// What Execute answers in each case, and what reached Invoke if anything did: the
// first parameter lies last; a put names its value, which lies first. How each
// item becomes its cell is the translation unit tests'.
TEST_F(CallStatusTest, ExecuteAnswersEachCase)
{
    struct Record {
        MetaStatus status;
        std::uint32_t code;
        const wchar_t* description;
        const wchar_t* source;
    };
    const MetaStatus failed = MetaStatusInvokeFailed;
    const Record untouched{failed, kUntouchedCode, L"untouched", L"untouched"}, noTexts{failed, 65535, L"untouched",
                                                                                        L"untouched"};
    const Record succeeded{MetaStatusOk, 1, L"COM Method call succeeded", L"untouched"};
    const Record badEnum{failed, 65535, L"Illegal enum value", L"Parameter Validation Error"};
    const Record deferred{failed, 65535, kDeferredDescription, kDeferredSource};
    const auto none = [] { return std::vector<Param>(); };
    constexpr char kNoArguments[] = "flags=1 args=0 named=[] vt=[]", kOneNumber[] = "flags=1 args=1 named=[] vt=[0003]";
    CCountingDispatch object;
    const struct {
        const char* label;
        const wchar_t* key;
        MakeParams params;
        Record record;
        const char* lastCall;  // null: Invoke never ran
        bool item = false;
    } rows[] = {
        {"unknown member", L"Invoke:NoSuchMember", none, untouched, nullptr},
        {"key without a colon", L"Number", none, untouched, nullptr},
        {"enumeration outside its type", L"Invoke:EchoColour", [] { return ParamList(Colour(3)); }, badEnum, nullptr},
        {"enum without values", L"Invoke:EchoColour", [] { return ParamList(Colour(2, false)); }, badEnum, nullptr},
        {"an out enumeration is not validated", L"Invoke:OutColour", [] { return ParamList(ByRef(Colour(3), kOut)); },
         succeeded, "flags=1 args=1 named=[] vt=[4003]"},
        {"E_NOTIMPL", L"Invoke:NotImplemented", none, {failed, 1, kNotImplementedDescription, kNotImplementedSource},
         kNoArguments},
        {"another failure with the object's texts", L"Invoke:FailWithGarbage",
         [] { return ParamList(ByRef(Int(1), kOut), ByRef(Real(2), kOut)); },
         {failed, 65535, kGarbageDescription, kGarbageSource}, "flags=1 args=2 named=[] vt=[4005,4003]"},
        {"a failure without texts: too few arguments", L"Invoke:EchoI4", none, noTexts, kNoArguments},
        {"deferred fill-in: its texts win", L"Invoke:FailDeferred", [] { return ParamList(Int(0)); }, deferred,
         kOneNumber},
        {"deferred fill-in fails: the first texts stay", L"Invoke:FailDeferred", [] { return ParamList(Int(1)); },
         {failed, 65535, kEarlyDescription, kEarlySource}, kOneNumber},
        {"a C++ exception out of Invoke", L"Invoke:Throw", none, untouched, kNoArguments},
        {"VT_EMPTY is a null item", L"Invoke:Shape", [] { return ParamList(Int(ShapeEmpty)); }, succeeded, kOneNumber},
        {"a method", L"Invoke:Four", [] { return ParamList(Int(1), Text(L"abc"), Real(2.5), Bool(1)); }, succeeded,
         "flags=1 args=4 named=[] vt=[000b,0005,0008,0003]", true},
        {"a get with arguments", L"Get:Cell", [] { return ParamList(Int(1), Int(2, L"VT_I2")); }, succeeded,
         "flags=2 args=2 named=[] vt=[0002,0003]", true},
        {"a put", L"Set:Cell", [] { return ParamList(Int(1), Int(2, L"VT_I2"), Real(3)); }, succeeded,
         "flags=4 args=3 named=[-3] vt=[0005,0002,0003]"},
        {"a put without arguments still names one", L"Set:Cell", none, noTexts, "flags=4 args=0 named=[-3] vt=[]"},
        {"a put by reference", L"Setref:Target", [&] { return ParamList(ObjectItem(&object)); }, succeeded,
         "flags=8 args=1 named=[-3] vt=[0009]"},
        {"a method without a result", L"Invoke:DropHeld", none, succeeded, kNoArguments},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            // A call no row makes, so that whether Invoke ran shows in the record of the last call.
            const std::vector<Param> cell = ParamList(Int(1), Int(2));
            ASSERT_EQ(Call(handler, L"Get:Cell", Items(cell)).status, MetaStatusOk);
            const std::string before = LastCall(handler);
            const std::vector<Param> params = row.params();
            const Outcome outcome = Call(handler, row.key, Items(params));
            EXPECT_EQ(outcome.status, row.record.status);
            EXPECT_EQ(outcome.record.code, row.record.code);
            EXPECT_EQ(Wide(outcome.record.description), row.record.description);
            EXPECT_EQ(Wide(outcome.record.source), row.record.source);
            EXPECT_EQ(LastCall(handler), row.lastCall ? row.lastCall : before);
            EXPECT_EQ(outcome.result != nullptr, row.item);
        }
    });
    EXPECT_EQ(object.References(), 1);
}

// Parameters set twice add up; a call run again reads its items again.
TEST_F(CallStatusTest, ParametersAddUpAndACallRunsAgain)
{
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        const Param a = Int(1), b = Text(L"abc"), c = Real(2.5), d = Bool(1), counter = ByRef(Int(1), kInOut);
        CCOMMethodInvoke* slot = nullptr;
        ASSERT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(L"Invoke:Four")), MetaStatusOk);
        CItemList first{a.get(), b.get()}, second{c.get(), d.get()}, one{counter.get()};
        EXPECT_EQ(handler.SetInvokeParams(&slot, first), MetaStatusOk);
        EXPECT_EQ(handler.SetInvokeParams(&slot, second), MetaStatusOk);
        CMethodInvokeStatus record;
        CMetaObjectItem* result = nullptr;
        ASSERT_EQ(handler.ExecuteInvoke(&slot, &record, &result), MetaStatusOk);
        EXPECT_EQ(ValueText(Result(result, ResultDeleter{&handler}).get()), L"1006");  // 1 + 3 + 2 + 1000
        // A new call in a used slot frees the old one.
        ASSERT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(L"Invoke:RefI4")), MetaStatusOk);
        EXPECT_EQ(handler.SetInvokeParams(&slot, one), MetaStatusOk);
        for (const wchar_t* expected : {L"2", L"3"}) {
            EXPECT_EQ(handler.ExecuteInvoke(&slot, &record, nullptr), MetaStatusOk);
            EXPECT_EQ(ValueText(counter.get()), expected);
        }
        handler.FreeMethodInvoke(&slot);
    });
}

// Texts that go out and come back are the platform's, from the process heap:
// each call must free what it made, or a host that loops leaks a text a turn.
TEST_F(CallStatusTest, TextsOfCallsGoBackToTheProcessHeap)
{
    const auto busyBlocks = [] {
        HANDLE heap = GetProcessHeap();
        PROCESS_HEAP_ENTRY entry{};
        long busy = 0;
        HeapLock(heap);
        while (HeapWalk(heap, &entry))
            busy += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
        HeapUnlock(heap);
        return busy;
    };
    constexpr int kTurns = 400;
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        const Param text = Text(L"four"), inOut = ByRef(Text(L"x"), kInOut), a = Int(1), c = Real(2.5), d = Bool(1);
        const struct {
            const wchar_t* key;
            std::vector<CMetaObjectItem*> params;
        } calls[] = {
            {L"Invoke:EchoBstr", {text.get()}},
            {L"Invoke:RefBstr", {inOut.get()}},
            {L"Invoke:Four", {a.get(), text.get(), c.get(), d.get()}},
        };
        for (const auto& call : calls) {
            Call(handler, call.key, call.params);  // the first call's own allocations are not a leak
            const long before = busyBlocks();
            for (int turn = 0; turn < kTurns; ++turn) {
                // The in/out text comes back one mark longer: kept short, as a
                // text of a new length may stay in the platform's cache of texts.
                static_cast<CMetaObjectString&>(*inOut).value = CMetaString(L"x");
                EXPECT_EQ(Call(handler, call.key, call.params).status, MetaStatusOk);
            }
            EXPECT_LT(busyBlocks() - before, kTurns / 4) << Narrow(CMetaString(call.key));
        }
    });
}

}  // namespace
