#include <gtest/gtest.h>

#include <windows.h>

#include <vector>

#include "platform/error_text.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"

using MetaObj::MetaStatus;
using namespace MetaObj;

namespace {

// Records which of the overridable steps the base ran.
class CWatchedHandler : public CMetaObjectCOMHandler {
public:
    MetaStatus OpenObject(const char* text, CObjectOpenParams* params) override
    {
        ++openObjectCalls;
        return CMetaObjectCOMHandler::OpenObject(text, params);
    }
    MetaStatus OnObjectOpened(const char*, CObjectOpenParams*) override
    {
        ++openedCalls;
        return openedResult;
    }
    MetaStatus OnObjectClosing() override
    {
        ++closingCalls;
        return MetaStatusOk;
    }
    int openObjectCalls = 0;
    int openedCalls = 0;
    int closingCalls = 0;
    MetaStatus openedResult = MetaStatusOk;
};

TEST(HandlerTest, UseCountAndCloseStateMachine)
{
    CWatchedHandler handler;
    EXPECT_EQ(handler.GetUseCount(), 1u);
    EXPECT_FALSE(handler.IsOpen());

    EXPECT_EQ(handler.AddUse(), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), 2u);
    EXPECT_EQ(handler.Release(), MetaStatusOk);
    EXPECT_EQ(handler.closingCalls, 0);
    EXPECT_EQ(handler.Release(), MetaStatusClosed);
    EXPECT_EQ(handler.closingCalls, 1);
    EXPECT_EQ(handler.Release(), MetaStatusNotInUse);
    EXPECT_EQ(handler.closingCalls, 1);
    EXPECT_EQ(handler.GetUseCount(), 0u);

    // A closed handler can start again.
    EXPECT_EQ(handler.AddUse(), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), 1u);
}

TEST(HandlerTest, LastReleaseWithoutObjectClearsTheIdentity)
{
    CMetaObjectCOMHandler handler;
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha");
    handler.SetIdentity(identity);
    EXPECT_EQ(handler.identity.GetObjectName(), "Sample.Object");
    EXPECT_EQ(handler.identity.GetAttribute(std::string("host")), "alpha");

    EXPECT_EQ(handler.Release(), MetaStatusClosed);
    EXPECT_EQ(handler.identity.GetText(), "");
    EXPECT_FALSE(handler.IsOpen());
}

TEST(HandlerTest, AttachAndDetachRules)
{
    CCountingDispatch first;
    CMetaObjectCOMHandler handler;
    ASSERT_EQ(handler.AttachObject(&first, "COM://First.Object"), MetaStatusOk);

    // A null object changes nothing.
    EXPECT_EQ(handler.AttachObject(nullptr, "COM://Other"), MetaStatusNoObjectGiven);
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    EXPECT_EQ(handler.identity.GetObjectName(), "First.Object");

    // A null text clears the identity.
    handler.DetachObject();
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);
    EXPECT_EQ(handler.identity.GetText(), "");

    // Detaching forgets without releasing.
    handler.DetachObject();
    EXPECT_EQ(handler.GetObjectPointer(), nullptr);
    EXPECT_EQ(first.References(), 1);

    // SetIdentity replaces the identity and leaves the object.
    ASSERT_EQ(handler.AttachObject(&first, "COM://First.Object"), MetaStatusOk);
    CObjectIdentity bare;
    bare.SetText("no delimiter");
    handler.SetIdentity(bare);
    EXPECT_FALSE(handler.identity.IsComplete());
    EXPECT_EQ(handler.identity.GetText(), "no delimiter");
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    handler.DetachObject();
}

TEST(HandlerTest, OpenCreatesNothingOnAnOpenHandler)
{
    CCountingDispatch object;
    CWatchedHandler handler;
    ASSERT_EQ(handler.AttachObject(&object, "COM://First.Object"), MetaStatusOk);
    handler.openedResult = static_cast<MetaStatus>(42);
    EXPECT_EQ(handler.Open("COM://Second.Object", nullptr), static_cast<MetaStatus>(42));
    EXPECT_EQ(handler.openObjectCalls, 0);
    EXPECT_EQ(handler.openedCalls, 1);
    EXPECT_EQ(handler.identity.GetObjectName(), "First.Object");
    EXPECT_EQ(handler.GetObjectPointer(), &object);
    handler.DetachObject();
}

TEST(HandlerTest, FailedOpenLeavesTheHandlerAsItWas)
{
    CWatchedHandler handler;
    CObjectIdentity identity;
    identity.SetText("COM://Kept.Object");
    handler.SetIdentity(identity);
    EXPECT_EQ(handler.Open("COM://No.Such.Class", nullptr), MetaStatusNoObject);
    EXPECT_EQ(handler.openObjectCalls, 1);
    EXPECT_EQ(handler.openedCalls, 0);
    EXPECT_FALSE(handler.IsOpen());
    EXPECT_EQ(handler.identity.GetObjectName(), "Kept.Object");
}

TEST(HandlerTest, OpeningAClosedHandlerWithoutAddUseKeepsItOpen)
{
    CCountingDispatch object;
    CMetaObjectCOMHandler handler;
    ASSERT_EQ(handler.Release(), MetaStatusClosed);
    object.AddRef();
    ASSERT_EQ(handler.AttachObject(&object, "COM://x"), MetaStatusOk);
    EXPECT_EQ(handler.Release(), MetaStatusNotInUse);
    EXPECT_TRUE(handler.IsOpen());
    EXPECT_EQ(object.References(), 2);
    EXPECT_EQ(handler.CloseObject(), MetaStatusClosed);
    EXPECT_EQ(object.References(), 1);
}

TEST(HandlerTest, UsesFromManyThreadsBalance)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    CMetaObjectCOMHandler handler;
    struct Work {
        static DWORD WINAPI Body(void* argument)
        {
            auto* shared = static_cast<CMetaObjectCOMHandler*>(argument);
            for (int i = 0; i < kRounds; ++i)
                shared->AddUse();
            for (int i = 0; i < kRounds; ++i)
                shared->Release();
            return 0;
        }
    };
    HANDLE threads[kThreads];
    for (HANDLE& thread : threads)
        thread = CreateThread(nullptr, 0, Work::Body, &handler, 0, nullptr);
    WaitForMultipleObjects(kThreads, threads, TRUE, INFINITE);
    for (HANDLE thread : threads)
        CloseHandle(thread);
    EXPECT_EQ(handler.GetUseCount(), 1u);
}

TEST(HandlerTest, FreeOperationsIgnoreNullAndFreeLists)
{
    CMetaObjectCOMHandler handler;
    handler.FreeObjectInfo(nullptr);
    handler.FreeMethodInfo(nullptr);
    handler.FreeItem(nullptr);
    handler.FreeParamInfo(nullptr);
    handler.FreeRecordList1(nullptr);
    handler.FreeRecordList2(nullptr);
    handler.FreeRecordList3(nullptr);
    handler.FreeMethodNameList(nullptr);
    handler.FreeRecordList1(new CItemList(2, nullptr));
    handler.FreeRecordList2(new CItemList);
    handler.FreeRecordList3(new CItemList(1, nullptr));
    handler.FreeMethodNameList(new CMethodNameList{CMetaString(L"Get:Count"), CMetaString(L"Invoke:Add")});
}

TEST(HandlerTest, ErrorTextsBelongToTheirThread)
{
    CMetaObjectCOMHandler handler;
    struct Work {
        CMetaObjectCOMHandler* handler;
        const char* text;
        HANDLE ready;  // set once this thread's text stands
        HANDLE go;     // both texts stand: read them back
        std::wstring readBack;

        static DWORD WINAPI Body(void* argument)
        {
            auto* work = static_cast<Work*>(argument);
            SetErrorText(work->handler, work->text);
            SetEvent(work->ready);
            WaitForSingleObject(work->go, INFINITE);
            const wchar_t* text = work->handler->GetErrorText().GetWide();
            work->readBack = text != nullptr ? text : L"";
            return 0;
        }
    };
    HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Work works[] = {{&handler, "first thread", CreateEventA(nullptr, TRUE, FALSE, nullptr), go, {}},
                    {&handler, "second thread", CreateEventA(nullptr, TRUE, FALSE, nullptr), go, {}}};
    HANDLE threads[2];
    for (int i = 0; i < 2; ++i)
        threads[i] = CreateThread(nullptr, 0, Work::Body, &works[i], 0, nullptr);
    HANDLE ready[] = {works[0].ready, works[1].ready};
    WaitForMultipleObjects(2, ready, TRUE, INFINITE);
    SetEvent(go);
    WaitForMultipleObjects(2, threads, TRUE, INFINITE);
    for (HANDLE h : {threads[0], threads[1], ready[0], ready[1], go})
        CloseHandle(h);

    EXPECT_EQ(works[0].readBack, L"first thread");
    EXPECT_EQ(works[1].readBack, L"second thread");
    // This thread never set one.
    EXPECT_TRUE(handler.GetErrorText().IsEmpty());
}

TEST(HandlerTest, ClearingLeavesOneEmptyEntry)
{
    CMetaObjectCOMHandler handler;
    CHandlerErrorMap* map = GetThreadErrorMap();
    ASSERT_NE(map, nullptr);
    const auto key = reinterpret_cast<std::uintptr_t>(&handler);
    // Entries outlive their handlers, so an earlier handler at this address may have left one.
    map->erase(key);
    const std::size_t before = map->size();
    EXPECT_TRUE(handler.GetErrorText().IsEmpty());
    EXPECT_EQ(map->size(), before + 1);  // reading made the entry

    SetErrorTextById(&handler, 2000);
    EXPECT_STREQ(handler.GetErrorText().GetNarrow(), "Could not load type library");
    // CloseObject clears the text first; twice leaves one empty entry.
    handler.CloseObject();
    handler.CloseObject();
    EXPECT_TRUE(handler.GetErrorText().IsEmpty());
    EXPECT_EQ(map->size(), before + 1);
    EXPECT_EQ(map->count(key), 1u);
    // The reference is to the entry itself.
    EXPECT_EQ(&handler.GetErrorText(), &(*map)[key]);
}

TEST(MetaLockTest, DestroyIsTheOwnersAndHappensOnce)
{
    CMetaLock lock;
    EXPECT_EQ(lock.kind, 0u);
    ASSERT_NE(lock.section, nullptr);
    EXPECT_EQ(lock.Enter(), 0u);
    EXPECT_EQ(lock.Enter(), 0u);  // a critical section may be entered again by its owner
    EXPECT_EQ(lock.Leave(), 0u);
    EXPECT_EQ(lock.Leave(), 0u);
    EXPECT_EQ(lock.Destroy(), 0u);
    EXPECT_EQ(lock.section, nullptr);
    EXPECT_EQ(lock.Destroy(), 1u);
    EXPECT_EQ(lock.Enter(), 1u);
    EXPECT_EQ(lock.Leave(), 1u);
}

TEST(DcomSettingTest, FirstByteDecides)
{
    struct Row {
        const char* bytes;
        std::size_t size;
        bool enabled;
    };
    const Row rows[] = {
        {"Y", 2, true},   {"y", 2, true},   {"T", 2, true},     {"t", 2, true}, {"1", 2, true},
        {"Yes", 4, true}, {"true", 5, true}, {"N", 2, false},   {"0", 2, false}, {"", 1, false},
        {"", 0, false},   {" Y", 3, false}, {"n\0Y", 4, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << '"' << row.bytes << "\" size " << row.size);
        EXPECT_EQ(DcomEnabledFromValue(row.bytes, row.size), row.enabled);
    }
}

TEST(ModulePathTest, CutAtTheLastSeparator)
{
    struct Row {
        const char* path;
        const char* directory;
    };
    const Row rows[] = {
        {"C:\\Program Files\\Host\\comhandler.dll", "C:\\Program Files\\Host"},
        {"C:\\Host\\plugins/comhandler.dll", "C:\\Host"},  // a backslash wins wherever the slash stands
        {"/opt/host/comhandler.dll", "/opt/host"},
        {"comhandler.dll", "comhandler.dll"},
        {"C:\\comhandler.dll", "C:"},
        {"", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        char buffer[MAX_PATH];
        lstrcpynA(buffer, row.path, MAX_PATH);
        CutAtLastSeparator(buffer);
        EXPECT_STREQ(buffer, row.directory);
    }
}

}  // namespace
