// The module as a host meets it: loaded by file name, driven through its exports.

#include <objbase.h>

#include <cstdint>
#include <string>

#include "contract/host_environment.h"
#include "host/reference_host.h"
#include "platform/handler_info.h"
#include "plugin/com_handler.h"
#include "tests/module/module_fixture.h"
#include "tests/support/counting_dispatch.h"

using namespace MetaObj;

namespace {

TEST_F(ModuleTest, AnswersBeforeInitialisation)
{
    EXPECT_EQ(module->GetHandlerVersion(), 0x00020000u);
    CMetaObjectHandlerInfo* info = module->GetHandlerInfo();
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->GetHandlerName(), nullptr);
    EXPECT_EQ(info->GetModulePath(), nullptr);
    module->FreeHandlerObject(nullptr);
}

TEST_F(ModuleTest, InitHandlerWithoutAModuleHandleTouchesNothing)
{
    RunOnThread([&] {
        EXPECT_FALSE(module->InitHandler(nullptr));
        // COM is still down on this thread.
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        CoUninitialize();
    });
    EXPECT_EQ(module->GetHandlerInfo()->GetHandlerName(), nullptr);
}

TEST_F(ModuleTest, InitHandlerRefusesAThreadWhoseComIsUp)
{
    for (DWORD apartment : {COINIT_APARTMENTTHREADED, COINIT_MULTITHREADED}) {
        SCOPED_TRACE(apartment == COINIT_MULTITHREADED ? "multithreaded" : "apartment");
        RunOnThread([&] {
            ASSERT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
            EXPECT_FALSE(module->InitHandler(module->Handle()));
            EXPECT_EQ(module->GetHandlerInfo()->GetHandlerName(), nullptr);
            CoUninitialize();
            if (apartment == COINIT_MULTITHREADED) {
                // The refused S_FALSE still counts, and the module leaves it standing.
                EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
                CoUninitialize();
                CoUninitialize();
            }
        });
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
        EXPECT_EQ(first->identity.GetText(), "");
        EXPECT_EQ(first->GetHandlerInfo(), module->GetHandlerInfo());
        for (CMetaObjectHandler* handler : {first, second}) {
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            module->FreeHandlerObject(handler);
        }
    });
}

// A table whose every entry counts, with no context: nothing may be called.
int g_tableCalls = 0;

TEST_F(ModuleTest, ATableWithoutContextIsNotCalled)
{
    CHandlerEnvironment table{};
    table.BeginObjectLoad = [](void*, CObjectIdentity*, std::uint8_t*) { return ++g_tableCalls, true; };
    table.EndObjectLoad = [](void*, CObjectIdentity*, std::uint8_t) { return ++g_tableCalls, true; };
    table.ReleaseObjectLoad = [](void*, CObjectIdentity*) { return ++g_tableCalls, true; };
    table.AddMethodEntry = [](void*, CObjectIdentity*, CMethodEntry*) { return ++g_tableCalls, true; };
    table.GetMethodTable = [](void*, CObjectIdentity*) { return ++g_tableCalls, static_cast<CMetaObjectMethodTable*>(nullptr); };
    table.RegisterHandler = [](void*, CMetaObjectHandler*, HINSTANCE) { return ++g_tableCalls, true; };
    g_tableCalls = 0;
    RunInitialised([&] {
        for (CHandlerEnvironment* environment : {&table, static_cast<CHandlerEnvironment*>(nullptr)}) {
            module->SetEnvironment(environment);
            CMetaObjectHandler* handler = module->GetHandlerObject();
            ASSERT_NE(handler, nullptr);
            EXPECT_EQ(handler->AddUse(), MetaStatusOk);
            EXPECT_EQ(handler->Release(), MetaStatusOk);
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            module->FreeHandlerObject(handler);
        }
    });
    EXPECT_EQ(g_tableCalls, 0);
}

TEST_F(ModuleTest, ClosingReleasesOneReferenceOfAPlatformObject)
{
    CReferenceHost host;
    module->SetEnvironment(host.Table());
    RunInitialised([&] {
        CLSID classId;
        ASSERT_EQ(CLSIDFromProgID(L"Scripting.Dictionary", &classId), S_OK);
        IDispatch* dictionary = nullptr;
        ASSERT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                   reinterpret_cast<void**>(&dictionary)),
                  S_OK);
        const ULONG before = RefCount(dictionary);

        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        dictionary->AddRef();  // the reference handed over
        ASSERT_EQ(handler->AttachObject(dictionary, "COM://Scripting.Dictionary"), MetaStatusOk);
        EXPECT_TRUE(handler->IsOpen());
        EXPECT_EQ(handler->GetDispatchPointer(), dictionary);
        EXPECT_EQ(handler->identity.GetObjectName(), "Scripting.Dictionary");
        EXPECT_EQ(RefCount(dictionary), before + 1);

        // Opening again creates nothing and keeps the object.
        EXPECT_EQ(handler->Open("COM://WScript.Shell", nullptr), MetaStatusOk);
        EXPECT_EQ(handler->GetObjectPointer(), dictionary);

        EXPECT_EQ(handler->AddUse(), MetaStatusOk);
        EXPECT_EQ(handler->Release(), MetaStatusOk);
        EXPECT_EQ(RefCount(dictionary), before + 1);
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        EXPECT_EQ(RefCount(dictionary), before);
        EXPECT_EQ(handler->CloseObject(), MetaStatusClosed);  // nothing more to release
        EXPECT_EQ(RefCount(dictionary), before);
        EXPECT_FALSE(handler->IsOpen());
        EXPECT_TRUE(handler->GetErrorText().IsEmpty());
        module->FreeHandlerObject(handler);
        dictionary->Release();
    });
}

TEST_F(ModuleTest, FreeingAnOpenHandlerLeavesItsReference)
{
    RunInitialised([&] {
        CCountingDispatch object;
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        object.AddRef();
        ASSERT_EQ(handler->AttachObject(&object, "COM://Counting.Object"), MetaStatusOk);
        module->FreeHandlerObject(handler);
        EXPECT_EQ(object.References(), 2);
    });
}

}  // namespace
