// The module as a host meets it, through its exports; and what it frees, through its probe copy.

#include <algorithm>
#include <cstdlib>
#include <string>

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
    CMetaObjectHandlerInfo* info = module->GetHandlerInfo();  // its name and texts are the comtool check's
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module->Handle(), path, MAX_PATH);
    EXPECT_STREQ(info->GetModulePath(), path);
    const std::string fullPath(path);
    EXPECT_EQ(info->GetModuleDirectory(), fullPath.substr(0, fullPath.find_last_of('\\')));
    EXPECT_EQ(info->smallIcon, nullptr);  // the module ships no icon
    EXPECT_EQ(info->standardIcon, nullptr);
}

// What reaches the platform's CoGetClassObject, written down while it is in reach.
std::wstring g_request;

std::wstring Units(const USHORT* text, ULONG length)
{
    return text ? std::wstring(reinterpret_cast<const wchar_t*>(text), length) : std::wstring(L"(null)");
}

HRESULT WINAPI RecordClassObjectRequest(REFCLSID, DWORD context, COSERVERINFO* server, REFIID, void** out)
{
    const COAUTHINFO* auth = server ? server->pAuthInfo : nullptr;
    const COAUTHIDENTITY* id = auth ? auth->pAuthIdentityData : nullptr;
    g_request = L"context " + std::to_wstring(context);
    if (server)
        g_request += L" on " + std::wstring(server->pwszName ? server->pwszName : L"(null)");
    if (auth)
        g_request += L" auth " + std::to_wstring(auth->dwAuthnSvc) + L"/" + std::to_wstring(auth->dwAuthzSvc) + L"/" +
                     std::to_wstring(auth->dwAuthnLevel) + L"/" + std::to_wstring(auth->dwImpersonationLevel) + L"/" +
                     std::to_wstring(auth->dwCapabilities);
    if (id)
        g_request += L" " + Units(id->Domain, id->DomainLength) + L"\\" + Units(id->User, id->UserLength) + L":" +
                     Units(id->Password, id->PasswordLength) + L" flags " + std::to_wstring(id->Flags);
    *out = nullptr;
    return CO_E_SERVER_EXEC_FAILURE;  // as a machine that can't be reached answers
}

// The server (context 16, else 23) and credentials: attributes before the host's defaults, none without DCOM.
TEST_F(CallTest, TheRemoteRequestReachesThePlatformsClassFactoryCall)
{
    const wchar_t* const credentials = L" auth 10/0/0/3/0 ";
    const struct { const char* attributes; bool withDefaults; const wchar_t *host, *user, *request; } rows[] = {
        {"", true, L"", L"", L"context 23"},
        {"?Host=far", false, nullptr, nullptr, L"context 16 on far"},
        {"?Host=far", true, L"near", L"", L"context 16 on far"},
        {"?Host=", true, L"near", L"", L"context 16 on near"},
        {"?Username=u", false, nullptr, nullptr, L"context 23 on (null)|(null)\\u:(null) flags 2"},
        {"?Host=far?Username=u?Password=pw?Domain=dom", true, L"", L"", L"context 16 on far|dom\\u:pw flags 2"},
        {"?Password=p", true, L"", L"dflt", L"context 23 on (null)|dflt-dom\\dflt:p flags 2"},
        {"?Username=u", true, L"", L"", L"context 23 on (null)|dflt-dom\\u:dflt-pw flags 2"},
        {"?Password=p?Domain=d", true, L"", L"", L"context 23"},  // no user: no effect
    };
    RunInitialised([&] {
        ImportPatch patch(module->Handle(), "ole32.dll", "CoGetClassObject",
                          reinterpret_cast<void*>(&RecordClassObjectRequest));
        ASSERT_TRUE(patch.Applied());
        for (const bool dcom : {true, false}) {
            for (const auto& row : rows) {
                SCOPED_TRACE(testing::Message() << "row " << (&row - rows) << (dcom ? "" : " without DCOM"));
                CObjectOpenParams params;
                params.host = CMetaString(row.host);
                params.userName = CMetaString(row.user);
                params.password = CMetaString(L"dflt-pw");
                params.domain = CMetaString(L"dflt-dom");
                auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
                handler->dcomEnabled = dcom;
                g_request.clear();
                const std::string identity = std::string("COM://Scripting.Dictionary") + row.attributes;
                EXPECT_EQ(handler->Open(identity.c_str(), row.withDefaults ? &params : nullptr), MetaStatusNoObject);
                std::wstring expected = dcom ? row.request : L"context 23";
                if (expected.find(L'|') != std::wstring::npos)
                    expected.replace(expected.find(L'|'), 1, credentials);
                EXPECT_EQ(g_request, expected);
                handler->Release();
            }
        }
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
}

// Texts are per thread, and a thread's end frees them; a new call in a used slot frees the old one;
// freeing a handler that is still open leaves its object's reference.
TEST_F(ProbeTest, WhatThreadsSlotsAndFreeingLeave)
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
    RunInitialised([&] {
        CCountingDispatch freed;
        CMetaObjectHandler* handler = module->GetHandlerObject();
        freed.AddRef();  // the reference handed over
        ASSERT_EQ(static_cast<CMetaObjectCOMHandler*>(handler)->AttachObject(&freed, "COM://Counting"), MetaStatusOk);
        module->FreeHandlerObject(handler);
        EXPECT_EQ(freed.References(), 2);
    });
}

// One host thread opens, calls, describes and frees handlers in turn, as a pooled worker does for months:
// blocks stay flat from the half-way mark. COMHANDLER_LONG_THREAD_HANDLERS raises the default 600.
TEST_F(ProbeTest, HandlersInTurnLeaveNothingBehind)
{
    const char* const files = "COM://Scripting.FileSystemObject";  // in the thread's apartment: no marshaling
    const char* const undescribable = "COM://ComHandlerTest.NoSuchClass";  // fails, setting the text
    const char* const asked = std::getenv("COMHANDLER_LONG_THREAD_HANDLERS");
    const long count = std::max(asked ? std::atol(asked) : 0L, 600L);
    const long settledAt = std::min(count / 2, 1000L);
    LONG settled = 0;
    RunInitialised([&] {
        for (long at = 0; at < count; ++at) {
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            ASSERT_EQ(handler->Open(files, nullptr), MetaStatusOk);
            const Param key = Text(L"k", L"VT_BSTR"), value = Text(L"v", L"VT_BSTR");
            ASSERT_EQ(Call(*handler, L"Invoke:BuildPath", {key.get(), value.get()}).status, MetaStatusOk);
            CMetaObjectHandler* describer = module->GetHandlerObject();
            ASSERT_EQ(describer->LoadObjectInfo(files), MetaStatusOk);
            ASSERT_EQ(describer->LoadObjectInfo(undescribable), MetaStatusNoTypeInfo);
            ASSERT_EQ(Narrow(describer->GetErrorText()), "Could not load type library");
            if (at == 0) {  // a new handler registers, and its next operation clears its text
                EXPECT_EQ(host.Registrations().back().handler, describer);
                EXPECT_EQ(host.Registrations().back().module, module->Handle());
                EXPECT_EQ(describer->GetHandlerInfo(), module->GetHandlerInfo());
                EXPECT_EQ(describer->LoadObjectInfo(files), MetaStatusOk);
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
