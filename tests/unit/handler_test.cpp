#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contract/host_environment.h"
#include "host/reference_host.h"
#include "invoke/method_invoke.h"
#include "metaobj/records.h"
#include "platform/contained_call.h"
#include "platform/error_text.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/support/counting_dispatch.h"

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
    int openObjectCalls = 0, openedCalls = 0, closingCalls = 0;
    MetaStatus openedResult = MetaStatusOk;
};

TEST(HandlerTest, UsesCloseOnceAndAClosedHandlerStartsAgain)
{
    CWatchedHandler handler;
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha");
    handler.SetIdentity(identity);
    EXPECT_EQ(handler.GetUseCount(), 1u);
    EXPECT_EQ(handler.AddUse(), MetaStatusOk);
    EXPECT_EQ(handler.Release(), MetaStatusOk);
    EXPECT_EQ(handler.closingCalls, 0);
    EXPECT_EQ(handler.Release(), MetaStatusClosed);
    EXPECT_EQ(handler.closingCalls, 1);
    EXPECT_EQ(handler.identity.GetText(), "");  // the last release without an object clears it
    EXPECT_EQ(handler.Release(), MetaStatusNotInUse);
    EXPECT_EQ(handler.closingCalls, 1);
    EXPECT_EQ(handler.GetUseCount(), 0u);
    EXPECT_EQ(handler.AddUse(), MetaStatusOk);
    EXPECT_EQ(handler.GetUseCount(), 1u);
}

TEST(HandlerTest, AttachDetachAndOpen)
{
    CCountingDispatch first;
    CWatchedHandler handler;
    ASSERT_EQ(handler.AttachObject(&first, "COM://First.Object"), MetaStatusOk);
    EXPECT_EQ(handler.AttachObject(nullptr, "COM://Other"), MetaStatusNoObjectGiven);  // changes nothing
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    EXPECT_EQ(handler.identity.GetObjectName(), "First.Object");

    handler.openedResult = static_cast<MetaStatus>(42);
    EXPECT_EQ(handler.Open("COM://Second.Object", nullptr), static_cast<MetaStatus>(42));
    EXPECT_EQ(handler.openObjectCalls, 0);
    EXPECT_EQ(handler.identity.GetObjectName(), "First.Object");

    CObjectIdentity bare;
    bare.SetText("no delimiter");
    handler.SetIdentity(bare);
    EXPECT_EQ(handler.GetObjectPointer(), &first);
    handler.DetachObject();
    EXPECT_EQ(handler.GetObjectPointer(), nullptr);
    EXPECT_EQ(first.References(), 1);
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);  // a null text clears the identity
    EXPECT_EQ(handler.identity.GetText(), "");
    handler.DetachObject();

    handler.SetIdentity(bare);
    handler.openedCalls = 0;
    EXPECT_EQ(handler.Open("COM://No.Such.Class", nullptr), MetaStatusNoObject);
    EXPECT_EQ(handler.openObjectCalls, 1);
    EXPECT_EQ(handler.openedCalls, 0);
    EXPECT_FALSE(handler.IsOpen());
    EXPECT_EQ(handler.identity.GetText(), "no delimiter");

    CMetaObjectCOMHandler closed;
    ASSERT_EQ(closed.Release(), MetaStatusClosed);
    first.AddRef();
    ASSERT_EQ(closed.AttachObject(&first, "COM://x"), MetaStatusOk);
    EXPECT_EQ(closed.Release(), MetaStatusNotInUse);
    EXPECT_TRUE(closed.IsOpen());
    EXPECT_EQ(closed.CloseObject(), MetaStatusClosed);
    EXPECT_EQ(first.References(), 1);
}

// Per-thread texts are the module tests' (host threads); here the entries of one thread.
TEST(HandlerTest, AThreadKeepsOnlyErrorTextsThatSaySomething)
{
    CHandlerErrorMap* map = GetThreadErrorMap();
    ASSERT_NE(map, nullptr);
    const std::size_t before = map->size();
    {
        CMetaObjectCOMHandler handler;
        EXPECT_TRUE(handler.GetErrorText().IsEmpty());
        EXPECT_EQ(map->size(), before);  // reading makes nothing
        SetErrorTextById(&handler, 2000);
        EXPECT_STREQ(handler.GetErrorText().GetNarrow(), "Could not load type library");
        handler.CloseObject();  // clears the text, and its entry goes
        EXPECT_TRUE(handler.GetErrorText().IsEmpty());
        EXPECT_EQ(map->size(), before);
        SetErrorTextById(&handler, 2000);
    }
    EXPECT_EQ(map->size(), before);  // the handler's end takes its text
    std::vector<std::unique_ptr<CMetaObjectCOMHandler>> handlers;
    for (std::size_t at = 0; at <= kMostThreadErrorTexts; ++at) {
        handlers.push_back(std::make_unique<CMetaObjectCOMHandler>());
        SetErrorText(handlers.back().get(), "failed");
    }
    EXPECT_LE(map->size(), kMostThreadErrorTexts);
    EXPECT_TRUE(handlers.front()->GetErrorText().IsEmpty());
    EXPECT_STREQ(handlers.back()->GetErrorText().GetNarrow(), "failed");
}

TEST(ContainedCallTest, AFaultOfThePlatformAnswersInsteadOfEndingTheProcess)
{
    static volatile std::uintptr_t badAddress = 0x24;  // the read oleaut32 made on ADO's Fields
    const auto fault = [] { return static_cast<HRESULT>(*reinterpret_cast<volatile int*>(badAddress)); };
    EXPECT_EQ(ContainFault([] { return S_FALSE; }), S_FALSE);
    EXPECT_EQ(ContainFault(fault), kContainedFault);
    EXPECT_EQ(ContainFault([&] { return ContainFault(fault) == kContainedFault ? S_OK : E_FAIL; }), S_OK);
    EXPECT_EQ(ContainFault([] { return S_OK; }), S_OK);
}

// COM fixes a name's id for the life of an object: a handler asks once per
// name and object, and asks again for names that found nothing.
TEST(HandlerTest, ANameIsAskedOncePerObject)
{
    CCountingDispatch first, second;
    CMetaObjectCOMHandler handler;
    CCOMMethodInvoke* call = nullptr;
    const auto make = [&](const wchar_t* key) {
        EXPECT_EQ(handler.CreateMethodInvoke(&call, CMetaString(key)), MetaStatusOk);
        const DISPID id = call->dispid;
        handler.FreeMethodInvoke(&call);
        return id;
    };
    first.AddRef();
    ASSERT_EQ(handler.AttachObject(&first, nullptr), MetaStatusOk);
    EXPECT_EQ(make(L"Get:Known"), 7);
    EXPECT_EQ(make(L"Set:Known"), 7);
    EXPECT_EQ(first.NameLookups(), 1);
    EXPECT_EQ(make(L"Invoke:Missing"), -1);
    EXPECT_EQ(make(L"Invoke:Missing"), -1);
    EXPECT_EQ(first.NameLookups(), 3);
    handler.CloseObject();
    second.AddRef();
    ASSERT_EQ(handler.AttachObject(&second, nullptr), MetaStatusOk);
    EXPECT_EQ(make(L"Get:Known"), 7);
    EXPECT_EQ(second.NameLookups(), 1);
    handler.CloseObject();
    EXPECT_EQ(first.References(), 1);
    EXPECT_EQ(second.References(), 1);
}

TEST(HandlerTest, LockDestroyIsTheOwnersAndHappensOnce)
{
    CMetaLock lock;
    EXPECT_EQ(lock.Enter() + lock.Enter() + lock.Leave() + lock.Leave(), 0u);  // entered again by its owner
    EXPECT_EQ(lock.Destroy(), 0u);
    EXPECT_EQ(lock.section, nullptr);
    EXPECT_EQ(lock.Destroy(), 1u);
    EXPECT_EQ(lock.Enter(), 1u);
    EXPECT_EQ(lock.Leave(), 1u);
}

TEST(HandlerTest, DcomSettingAndModuleDirectory)
{
    const struct {
        const char* bytes;
        std::size_t size;
        bool enabled;  // the first byte decides
    } settings[] = {
        {"y", 2, true}, {"T", 2, true}, {"1", 2, true}, {"Yes", 4, true}, {"N", 2, false},
        {"", 0, false}, {" Y", 3, false}, {"n\0Y", 4, false},
    };
    for (const auto& row : settings)
        EXPECT_EQ(DcomEnabledFromValue(row.bytes, row.size), row.enabled) << '"' << row.bytes << "\" size " << row.size;
    const struct { const char *path, *directory; } paths[] = {
        {"C:\\Program Files\\Host\\comhandler.dll", "C:\\Program Files\\Host"},
        {"C:\\Host\\plugins/comhandler.dll", "C:\\Host"},  // a backslash wins wherever the slash stands
        {"comhandler.dll", "comhandler.dll"}, {"", ""},
    };
    for (const auto& row : paths) {
        char buffer[MAX_PATH];
        lstrcpynA(buffer, row.path, MAX_PATH);
        CutAtLastSeparator(buffer);
        EXPECT_STREQ(buffer, row.directory) << row.path;
    }
}

// The null entries of a whole table are the module tests' (hostile texts); here the words that count.
TEST(HostEnvironmentTest, ValidOnlyWithContextAndWordsTwentyToTwentyFive)
{
    CReferenceHost host;
    CHandlerEnvironment table = *host.Table();
    EXPECT_TRUE(IsValid(&table));
    EXPECT_FALSE(IsValid(nullptr));
    void** words = reinterpret_cast<void**>(&table);
    for (int word : {0, 20, 21, 22, 23, 24, 25, 1, 19, 26, 27}) {
        void* kept = words[word];
        words[word] = nullptr;
        EXPECT_EQ(IsValid(&table), word == 1 || word == 19 || word >= 26) << "word " << word;
        words[word] = kept;
    }
}

}  // namespace
