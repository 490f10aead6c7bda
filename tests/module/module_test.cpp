// The module as a host meets it, through its exports; and what it frees, through its probe copy.

#include <algorithm>
#include <cwchar>
#include <cstdlib>
#include <string>
#include <utility>

#include "platform/handler_info.h"
#include "tests/probe/probe_test.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/import_patch.h"

using namespace MetaObj;

namespace {

// Refused without a module handle or where COM is up, leaving COM and the record be; accepted, it fills both.
TEST_F(ModuleTest, InitHandlerAndCleanUp)
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
    RunOnThread([&] {
        ASSERT_TRUE(module->InitHandler(module->Handle()));
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);  // up for the multithreaded apartment
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
    EXPECT_EQ(info->smallIcon, nullptr);  // the module ships no icon
    EXPECT_EQ(info->standardIcon, nullptr);
}

// Freeing a handler that is still open leaves its object's reference.
TEST_F(ModuleTest, FreeingAnOpenHandlerLeavesItsObject)
{
    RunInitialised([&] {
        CCountingDispatch freed;
        CMetaObjectHandler* handler = module->GetHandlerObject();
        freed.AddRef();  // the reference handed over
        ASSERT_EQ(static_cast<CMetaObjectCOMHandler*>(handler)->AttachObject(&freed, "COM://Counting"), MetaStatusOk);
        module->FreeHandlerObject(handler);
        EXPECT_EQ(freed.References(), 2);
    });
}

// What reaches the platform's CoGetClassObject, written down while it is in reach.
std::wstring g_requests;

HRESULT WINAPI RecordClassObjectRequest(REFCLSID, DWORD context, COSERVERINFO* server, REFIID, void** out)
{
    wchar_t text[512];
    const COAUTHINFO* auth = server ? server->pAuthInfo : nullptr;
    const COAUTHIDENTITY* id = auth ? auth->pAuthIdentityData : nullptr;
    if (id)
        swprintf(text, 512, L"[context %lu on %ls authn %lu level %lu %.*ls\\%.*ls:%.*ls flags %lu]", context,
                 server->pwszName, auth->dwAuthnSvc, auth->dwImpersonationLevel, int(id->DomainLength), id->Domain,
                 int(id->UserLength), id->User, int(id->PasswordLength), id->Password, id->Flags);
    else
        swprintf(text, 512, L"[context %lu%ls]", context, server ? L" on a server without credentials" : L"");
    g_requests += text;
    *out = nullptr;
    return CO_E_SERVER_EXEC_FAILURE;  // as a machine that can't be reached answers
}

// Remote: Windows authentication, impersonation, Unicode identity texts.
TEST_F(CallTest, TheRemoteRequestReachesThePlatformsClassFactoryCall)
{
    RunInitialised([&] {
        ImportPatch patch(module->Handle(), "ole32.dll", "CoGetClassObject",
                          reinterpret_cast<void*>(&RecordClassObjectRequest));
        ASSERT_TRUE(patch.Applied());
        CObjectOpenParams params;
        params.domain = CMetaString(L"corp");
        for (const auto& [dcom, request] :
             {std::pair{true, L"[context 16 on faraway authn 10 level 3 corp\\ann:pw flags 2]"},
              std::pair{false, L"[context 23]"}}) {
            SCOPED_TRACE(dcom ? "DCOM on" : "DCOM off");
            g_requests.clear();
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            handler->dcomEnabled = dcom;
            EXPECT_EQ(handler->Open("COM://Scripting.Dictionary?Host=faraway?Username=ann?Password=pw", &params),
                      MetaStatusNoObject);
            EXPECT_EQ(g_requests, request);
            handler->Release();
        }
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
}

// A thread's end frees its error texts; a new call in a used slot frees the old one.
TEST_F(ProbeTest, WhatThreadsAndSlotsFree)
{
    CMetaObjectHandler* first = module->GetHandlerObject();
    CMetaObjectHandler* second = module->GetHandlerObject();
    LONG before = liveBlocks();
    RunOnThread([&] {
        setErrorText(first, "Could not load type library");
        EXPECT_TRUE(second->GetErrorText().IsEmpty());
        EXPECT_STREQ(first->GetErrorText().GetWide(), L"Could not load type library");
        EXPECT_GT(liveBlocks(), before);  // the map, two entries and a text
    });
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_TRUE(first->GetErrorText().IsEmpty());  // not seen on this thread

    CCOMMethodInvoke* slot = nullptr;
    first->CreateMethodInvoke(&slot, CMetaString(L"Get:Number"));  // the thread's texts are made here
    first->FreeMethodInvoke(&slot);
    before = liveBlocks();
    for (const wchar_t* key : {L"Get:Number", L"Get:Count"})
        EXPECT_EQ(first->CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusOk);
    first->FreeMethodInvoke(&slot);
    EXPECT_EQ(liveBlocks(), before);
    for (CMetaObjectHandler* handler : {first, second})
        handler->Release();
    host.FreeReleasedHandlers(module->FreeHandlerObject);
}

// One host thread opens, calls, describes and frees handlers in turn, as a pooled worker does for months:
// blocks stay flat from the half-way mark. COMHANDLER_LONG_THREAD_HANDLERS raises the default 600.
TEST_F(ProbeTest, HandlersInTurnLeaveNothingBehind)
{
    const char* const dictionary = "COM://Scripting.Dictionary";
    const char* const undescribable = "COM://VBScript.RegExp";  // no library describes it
    const char* const asked = std::getenv("COMHANDLER_LONG_THREAD_HANDLERS");
    const long count = std::max(asked ? std::atol(asked) : 0L, 600L);
    const long settledAt = std::min(count / 2, 1000L);
    LONG settled = 0;
    RunInitialised([&] {
        for (long at = 0; at < count; ++at) {
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            ASSERT_EQ(handler->Open(dictionary, nullptr), MetaStatusOk);
            const Param key = Text(L"k", L"VT_VARIANT"), value = Int(at, L"VT_VARIANT");
            ASSERT_EQ(Call(*handler, L"Invoke:Add", {key.get(), value.get()}).status, MetaStatusOk);
            CMetaObjectHandler* describer = module->GetHandlerObject();
            ASSERT_EQ(describer->LoadObjectInfo(undescribable), MetaStatusNoTypeInfo);
            ASSERT_EQ(Narrow(describer->GetErrorText()), "Could not load type library");
            if (at == 0) {  // a new handler registers; its text is this thread's, and its next operation clears it
                EXPECT_EQ(host.Registrations().back().handler, describer);
                EXPECT_EQ(host.Registrations().back().module, module->Handle());
                EXPECT_EQ(describer->GetHandlerInfo(), module->GetHandlerInfo());
                std::string elsewhere = "not read";
                RunOnThread([&] { elsewhere = Narrow(describer->GetErrorText()); });
                EXPECT_EQ(elsewhere, "");
                EXPECT_EQ(describer->LoadObjectInfo(dictionary), MetaStatusOk);
                EXPECT_EQ(Narrow(describer->GetErrorText()), "");
                describer->UnloadObjectInfo();
                ASSERT_EQ(describer->LoadObjectInfo(undescribable), MetaStatusNoTypeInfo);
            }
            // Freed with its text still set, as a host that never asks leaves it.
            for (CMetaObjectHandler* used : {static_cast<CMetaObjectHandler*>(handler), describer})
                EXPECT_EQ(used->Release(), MetaStatusClosed);
            host.FreeReleasedHandlers(module->FreeHandlerObject);
            if (at + 1 == settledAt)
                settled = liveBlocks();
        }
        EXPECT_LE(liveBlocks() - settled, 16) << "after " << count << " handlers";
    });
}

}  // namespace
