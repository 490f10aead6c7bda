// The module as a host meets it: loaded by file name, driven through its
// exports; and through a copy of the module that counts its heap blocks, what
// it frees: a thread's error texts live as long as the thread, and a call
// object lives as long as its slot holds it.

#include <objbase.h>

#include <string>

#include "contract/handler_base.h"
#include "host/reference_host.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/module/module_fixture.h"
#include "tests/support/counting_dispatch.h"

using namespace MetaObj;

namespace {

// Refused without a module handle, or on a thread whose COM is up: then COM
// stays as the thread had it and the record stays empty.
TEST_F(ModuleTest, InitHandlerRefusesAndTouchesNothing)
{
    for (DWORD apartment : {0ul, DWORD{COINIT_APARTMENTTHREADED}, DWORD{COINIT_MULTITHREADED}}) {
        SCOPED_TRACE(apartment);
        RunOnThread([&] {
            if (apartment == 0) {
                EXPECT_FALSE(module->InitHandler(nullptr));
                EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);  // COM is still down
                CoUninitialize();
                return;
            }
            ASSERT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
            EXPECT_FALSE(module->InitHandler(module->Handle()));
            CoUninitialize();
            if (apartment == COINIT_MULTITHREADED) {
                // The refused S_FALSE still counts, and the module leaves it standing.
                EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
                CoUninitialize();
                CoUninitialize();
            }
        });
        EXPECT_EQ(module->GetHandlerInfo()->GetHandlerName(), nullptr);
    }
}

TEST_F(ModuleTest, InitHandlerFillsTheRecordAndCleanUpEndsCom)
{
    RunOnThread([&] {
        ASSERT_TRUE(module->InitHandler(module->Handle()));
        // COM is up for the multithreaded apartment on this thread.
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
        CoUninitialize();
        EXPECT_EQ(module->ProcessIdle(), 1u);
        EXPECT_TRUE(module->CleanUpHandler());
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        CoUninitialize();
    });

    EXPECT_EQ(module->GetHandlerVersion(), 0x00020000u);
    CMetaObjectHandlerInfo* info = module->GetHandlerInfo();
    EXPECT_STREQ(info->GetHandlerName(), "COM/DCOM Object Handler");
    EXPECT_STREQ(info->GetHandlerTypeName(), "COM");
    EXPECT_STREQ(info->GetHandlerDescription(), "Meta object native object handler plugin for COM/DCOM.");
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module->Handle(), path, MAX_PATH);
    EXPECT_STREQ(info->GetModulePath(), path);
    const std::string fullPath(path);
    EXPECT_EQ(info->GetModuleDirectory(), fullPath.substr(0, fullPath.find_last_of('\\')));
    // The module ships no icon: both stay null.
    EXPECT_EQ(info->smallIcon, nullptr);
    EXPECT_EQ(info->standardIcon, nullptr);
}

TEST_F(ModuleTest, NewHandlersRegisterWithTheHost)
{
    CReferenceHost host;
    module->SetEnvironment(host.Table());
    RunInitialised([&] {
        CMetaObjectHandler* first = module->GetHandlerObject();
        CMetaObjectHandler* second = module->GetHandlerObject();
        const auto registrations = host.Registrations();
        ASSERT_EQ(registrations.size(), 2u);
        EXPECT_EQ(registrations[0].handler, first);
        EXPECT_EQ(registrations[1].handler, second);
        EXPECT_EQ(registrations[0].module, module->Handle());
        EXPECT_EQ(first->GetUseCount(), 1u);
        EXPECT_FALSE(first->IsOpen());
        EXPECT_EQ(first->GetHandlerInfo(), module->GetHandlerInfo());
        for (CMetaObjectHandler* handler : {first, second}) {
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            module->FreeHandlerObject(handler);
        }
    });
}

// The handler's one reference goes with its last use; freeing a handler that
// is still open leaves it.
TEST_F(ModuleTest, AHandlerReleasesItsObjectOnceWhenItCloses)
{
    RunInitialised([&] {
        CCountingDispatch closed, freed;
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        closed.AddRef();  // the reference handed over
        ASSERT_EQ(handler->AttachObject(&closed, "COM://Counting.Object"), MetaStatusOk);
        EXPECT_EQ(handler->AddUse(), MetaStatusOk);
        EXPECT_EQ(handler->Release(), MetaStatusOk);
        EXPECT_EQ(closed.References(), 2);
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        EXPECT_EQ(closed.References(), 1);
        EXPECT_EQ(handler->CloseObject(), MetaStatusClosed);  // nothing more to release
        EXPECT_EQ(closed.References(), 1);
        EXPECT_TRUE(handler->GetErrorText().IsEmpty());
        module->FreeHandlerObject(handler);

        handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        freed.AddRef();
        ASSERT_EQ(handler->AttachObject(&freed, "COM://Counting.Object"), MetaStatusOk);
        module->FreeHandlerObject(handler);
        EXPECT_EQ(freed.References(), 2);
    });
}

using LiveAllocationsFn = LONG (*)();
using SetErrorTextFn = void (*)(const CMetaObjectHandler*, const char*);

class ProbeTest : public ModuleTest {
protected:
    void SetUp() override
    {
        Load(ProgramDirectory() + "probe.dll");
        liveAllocations = reinterpret_cast<LiveAllocationsFn>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeLiveAllocations")));
        setErrorText = reinterpret_cast<SetErrorTextFn>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeSetErrorText")));
        ASSERT_NE(liveAllocations, nullptr);
        ASSERT_NE(setErrorText, nullptr);
        module->SetEnvironment(nullptr);
    }

    LiveAllocationsFn liveAllocations = nullptr;
    SetErrorTextFn setErrorText = nullptr;
};

TEST_F(ProbeTest, AThreadsEndFreesItsErrorTexts)
{
    CMetaObjectHandler* first = module->GetHandlerObject();
    CMetaObjectHandler* second = module->GetHandlerObject();
    const LONG before = liveAllocations();
    RunOnThread([&] {
        setErrorText(first, "Could not load type library");
        EXPECT_TRUE(second->GetErrorText().IsEmpty());
        EXPECT_STREQ(first->GetErrorText().GetWide(), L"Could not load type library");
        EXPECT_GT(liveAllocations(), before);  // the map, two entries and a text
    });
    EXPECT_EQ(liveAllocations(), before);
    // The texts set on that thread are not seen here.
    EXPECT_TRUE(first->GetErrorText().IsEmpty());
    for (CMetaObjectHandler* handler : {first, second}) {
        handler->Release();
        module->FreeHandlerObject(handler);
    }
}

TEST_F(ProbeTest, ANewCallInAUsedSlotFreesTheOldOne)
{
    CMetaObjectHandler* handler = module->GetHandlerObject();
    CCOMMethodInvoke* slot = nullptr;
    handler->CreateMethodInvoke(&slot, CMetaString(L"Get:Number"));  // the thread's texts are made here
    handler->FreeMethodInvoke(&slot);
    const LONG before = liveAllocations();
    for (const wchar_t* key : {L"Get:Number", L"Get:Count"})
        EXPECT_EQ(handler->CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusOk);
    handler->FreeMethodInvoke(&slot);
    EXPECT_EQ(liveAllocations(), before);
    handler->Release();
    module->FreeHandlerObject(handler);
}

}  // namespace
