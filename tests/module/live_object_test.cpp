// The remote request as it reaches the platform, through the module's exports.

#include <objbase.h>
#include <oleauto.h>

#include <string>
#include <utility>

#include "tests/module/call_harness.h"
#include "tests/support/import_patch.h"

using namespace MetaObj;

namespace {

using LiveObjectTest = CallTest;

// What reaches the platform's CoGetClassObject, written down while it is in reach.
std::wstring g_requests;

HRESULT WINAPI RecordClassObjectRequest(REFCLSID, DWORD context, COSERVERINFO* server, REFIID, void** out)
{
    auto text = [](const void* units, ULONG length) {
        return units ? std::wstring(static_cast<const wchar_t*>(units), length) : std::wstring(L"-");
    };
    g_requests += L"[context " + std::to_wstring(context);
    if (server) {
        g_requests += std::wstring(L" on ") + (server->pwszName ? server->pwszName : L"-");
        if (const COAUTHINFO* auth = server->pAuthInfo) {
            const COAUTHIDENTITY* id = auth->pAuthIdentityData;
            g_requests += L" authn " + std::to_wstring(auth->dwAuthnSvc) + L" level " +
                          std::to_wstring(auth->dwImpersonationLevel) + L" " + text(id->Domain, id->DomainLength) +
                          L"\\" + text(id->User, id->UserLength) + L":" + text(id->Password, id->PasswordLength) +
                          L" flags " + std::to_wstring(id->Flags);
        }
    }
    g_requests += L"]";
    *out = nullptr;
    return CO_E_SERVER_EXEC_FAILURE;  // as a machine that can't be reached answers
}

// Remote: Windows authentication, impersonation, Unicode identity texts.
TEST_F(LiveObjectTest, TheRemoteRequestReachesThePlatformsClassFactoryCall)
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





}  // namespace
