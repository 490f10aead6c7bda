// The test servers in a process of their own, reached by class factory as most
// automation servers are. Values and arrays (of objects too) cross in the value
// and array tests; records and in/out arrays Wine's marshaler can't carry.

#include <windows.h>

#include <cstdio>
#include <string>

#include "tests/module/call_harness.h"
#include "tests/servers/collection_fixture_values.h"

using namespace MetaObj;

namespace {

const std::string kCollections = std::string("COM://") + CollectionValues::kProgIdNarrow;

std::string GuidText(REFGUID id)
{
    wchar_t text[40] = {};
    StringFromGUID2(id, text, 40);
    return Narrow(CMetaString(text));
}

// Ends the program if it lives a minute longer: a hang fails.
struct Watchdog {
    static void CALLBACK Fire(void*, BOOLEAN)
    {
        std::fputs("watchdog: a call on a dead server hangs\n", stderr);
        ExitProcess(5);
    }
    Watchdog() { CreateTimerQueueTimer(&timer, nullptr, Fire, nullptr, 60000, 0, 0); }
    ~Watchdog() { DeleteTimerQueueTimer(nullptr, timer, INVALID_HANDLE_VALUE); }
    HANDLE timer = nullptr;
};

// Every element of a collection of the given handler, walked in batches of 250.
std::wstring Walk(CMetaObjectCOMHandler& collection, IEnumVARIANT** slot)
{
    std::wstring walked;
    for (std::uint32_t fetched = 1; fetched != 0;) {
        CItemList list;
        if (collection.NextElements(slot, 250, list, &fetched) != MetaStatusOk)
            return walked + L"<failed>";
        for (CMetaObjectItem* item : list)
            walked += (walked.empty() ? L"" : L" ") + ValueText(Result(item, ResultDeleter{&collection}).get());
    }
    return walked;
}

using OutOfProcessTest = CallTest;

TEST_F(OutOfProcessTest, ObjectsGoBothWaysAndCollectionsAreWalked)
{
    WithObject(FixtureIdentity(true), [&](CMetaObjectCOMHandler& fixture) {
        const Outcome child = Call(fixture, L"Invoke:MakeChild");
        ASSERT_NE(ObjectOf(child.result.get()), nullptr);
        EXPECT_EQ(LocalServer::LiveObjects(), 2);
        const Outcome id = Call(ItemHandler(child.result.get()), L"Get:Id");
        const Param given = ObjectItem(ObjectOf(child.result.get()));
        EXPECT_EQ(ValueText(Call(fixture, L"Invoke:ChildId", {given.get()}).result.get()), ValueText(id.result.get()));
        EXPECT_EQ(Call(fixture, L"Invoke:Hold", {given.get()}).status, MetaStatusOk);
        EXPECT_EQ(Call(fixture, L"Invoke:DropHeld").status, MetaStatusOk);
        const Param slow = Int(2000);
        EXPECT_EQ(Call(fixture, L"Invoke:Pause", {slow.get()}).status, MetaStatusOk);
    });
    WithObject(kCollections + LocalServer::kSuffix, [&](CMetaObjectCOMHandler& maker) {
        const Param flags = Int(CollectionValues::kPlain), size = Int(300);
        const Outcome made = Call(maker, L"Invoke:Make", {flags.get(), size.get()});
        CMetaObjectCOMHandler& collection = ItemHandler(made.result.get());
        IEnumVARIANT* slot = nullptr;
        ASSERT_EQ(collection.OpenEnumerator(&slot), MetaStatusOk);
        const std::wstring walked = Walk(collection, &slot);
        EXPECT_EQ(walked.substr(0, 6), L"0 1 2 ");
        EXPECT_EQ(walked.substr(walked.size() - 4), L" 299");
        EXPECT_EQ(collection.CloseEnumerator(&slot), MetaStatusOk);
    });
}

// Killed while the host holds its objects, an open enumerator and a built call:
// each later operation fails with its status, the handlers close and free, and
// the host's other objects, in process or served by another process, go on.
TEST_F(OutOfProcessTest, AServerThatDiesFailsCleanly)
{
    WithFixture([&](CMetaObjectCOMHandler& inProcess) {
        Watchdog watchdog;
        // The other kind under class ids of this run's.
        GUID id{};
        ASSERT_EQ(CoCreateGuid(&id), S_OK);
        std::string command = "\"" + ProgramDirectory() + "tests\\fixture_local.exe\" other " + GuidText(id);
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION started{};
        ASSERT_TRUE(CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                   &started));
        LocalServer::HandleOwner server(started.hProcess), thread(started.hThread);
        auto* fixture = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        auto* maker = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        while (fixture->Open(("COM://" + GuidText(id).substr(1, 36)).c_str(), nullptr) != MetaStatusOk)
            Sleep(20);  // until the server has registered its classes
        GUID collectionId = id;
        collectionId.Data1 += 1;
        const std::string collections = "COM://" + GuidText(collectionId).substr(1, 36);
        ASSERT_EQ(maker->Open(collections.c_str(), nullptr), MetaStatusOk);
        const Param flags = Int(CollectionValues::kPlain), size = Int(10), number = Int(7);
        Outcome made = Call(*maker, L"Invoke:Make", {flags.get(), size.get()});
        CMetaObjectCOMHandler& collection = ItemHandler(made.result.get());
        IEnumVARIANT* slot = nullptr;
        ASSERT_EQ(collection.OpenEnumerator(&slot), MetaStatusOk);
        CCOMMethodInvoke* built = nullptr;
        ASSERT_EQ(fixture->CreateMethodInvoke(&built, CMetaString(L"Invoke:EchoI4")), MetaStatusOk);
        CItemList list{number.get()};
        ASSERT_EQ(fixture->SetInvokeParams(&built, list), MetaStatusOk);

        ASSERT_TRUE(TerminateProcess(server.Get(), 9));
        ASSERT_EQ(WaitForSingleObject(server.Get(), 10000), WAIT_OBJECT_0);

        CMethodInvokeStatus record;
        CMetaObjectItem* result = nullptr;
        EXPECT_EQ(fixture->ExecuteInvoke(&built, &record, &result), MetaStatusInvokeFailed);
        EXPECT_EQ(result, nullptr);
        EXPECT_NE(record.code, 0u);
        fixture->FreeMethodInvoke(&built);
        EXPECT_EQ(Call(*fixture, L"Get:Number").status, MetaStatusInvokeFailed);
        EXPECT_EQ(Walk(collection, &slot), L"<failed>");
        EXPECT_EQ(collection.CloseEnumerator(&slot), MetaStatusOk);
        made.result.reset();
        EXPECT_EQ(maker->Release(), MetaStatusClosed);
        EXPECT_EQ(fixture->Release(), MetaStatusClosed);
        EXPECT_EQ(ValueText(Call(inProcess, L"Get:Number").result.get()), L"42");
    });
    WithObject(FixtureIdentity(true), [&](CMetaObjectCOMHandler& fixture) {
        EXPECT_EQ(ValueText(Call(fixture, L"Get:Number").result.get()), L"42");
    });
}

}  // namespace
