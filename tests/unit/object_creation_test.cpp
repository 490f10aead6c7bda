// How a class factory is asked: class context, server and credentials from the
// identity's attributes before the host's defaults.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "plugin/object_creation.h"

using namespace MetaObj;

namespace {

std::wstring Units(const USHORT* text, ULONG length)
{
    return text ? std::wstring(reinterpret_cast<const wchar_t*>(text), length) : std::wstring(L"(null)");
}

struct Row {
    const char* name;
    bool dcom;
    const char* identity;
    bool withParams;
    const wchar_t *hostDefault, *userDefault;
    DWORD context;
    bool serverInfo;
    const wchar_t* serverName;                 // null: no name
    const wchar_t *user, *password, *domain;  // null user: no credentials
};

TEST(ActivationTest, DecisionTable)
{
    const Row rows[] = {
        {"no DCOM: the host attribute is ignored", false, "COM://X?Host=far?Username=u", true, L"", L"", 23, false,
         nullptr, nullptr, nullptr, nullptr},
        {"DCOM, nothing named", true, "COM://X", true, L"", L"", 23, false, nullptr, nullptr, nullptr, nullptr},
        {"no parameters: the attributes alone", true, "COM://X?Host=far", false, nullptr, nullptr, 16, true, L"far",
         nullptr, nullptr, nullptr},
        {"host attribute before the default", true, "COM://X?Host=far", true, L"near", L"", 16, true, L"far", nullptr,
         nullptr, nullptr},
        {"an empty host attribute gives way to the default", true, "COM://X?Host=", true, L"near", L"", 16, true,
         L"near", nullptr, nullptr, nullptr},
        {"a user without a host: credentials, no name", true, "COM://X?Username=u", false, nullptr, nullptr, 23, true,
         nullptr, L"u", L"(null)", L"(null)"},
        {"host and credentials", true, "COM://X?Host=far?Username=u?Password=secret?Domain=corp", true, L"", L"", 16,
         true, L"far", L"u", L"secret", L"corp"},
        {"the user from the defaults", true, "COM://X?Password=p", true, L"", L"dflt", 23, true, nullptr, L"dflt",
         L"p", L"default-domain"},
        {"a password without a user has no effect", true, "COM://X?Password=p?Domain=d", true, L"", L"", 23, false,
         nullptr, nullptr, nullptr, nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const CCOMIdentity identity(row.identity, 1);
        std::unique_ptr<CObjectOpenParams> params;
        if (row.withParams) {
            params = std::make_unique<CObjectOpenParams>();
            params->host = CMetaString(row.hostDefault);
            params->userName = CMetaString(row.userDefault);
            params->password = CMetaString(L"default-password");
            params->domain = CMetaString(L"default-domain");
        }
        CActivation activation;
        activation.Decide(row.dcom, identity, params.get());
        EXPECT_EQ(activation.classContext, row.context);
        EXPECT_EQ(activation.serverInfo != nullptr, row.serverInfo);
        if (!activation.serverInfo)
            continue;
        EXPECT_EQ(activation.serverInfo, &activation.server);
        if (row.serverName)
            EXPECT_STREQ(activation.server.pwszName, row.serverName);
        else
            EXPECT_EQ(activation.server.pwszName, nullptr);
        if (!row.user) {
            EXPECT_EQ(activation.server.pAuthInfo, nullptr);
            continue;
        }
        const COAUTHINFO* auth = activation.server.pAuthInfo;
        ASSERT_NE(auth, nullptr);
        EXPECT_EQ(auth->dwAuthnSvc, 10u);  // NTLM, impersonating, the rest left to the defaults
        EXPECT_EQ(auth->dwImpersonationLevel, 3u);
        EXPECT_EQ(auth->dwAuthzSvc + auth->dwAuthnLevel + auth->dwCapabilities, 0u);
        EXPECT_EQ(auth->pwszServerPrincName, nullptr);
        const COAUTHIDENTITY* id = auth->pAuthIdentityData;
        ASSERT_NE(id, nullptr);
        EXPECT_EQ(id->Flags, 2u);
        EXPECT_EQ(Units(id->User, id->UserLength), row.user);
        EXPECT_EQ(Units(id->Password, id->PasswordLength), row.password);
        EXPECT_EQ(Units(id->Domain, id->DomainLength), row.domain);
    }
}

TEST(ActivationTest, DefaultsFillWhatTheAttributesLeaveOpen)
{
    const CCOMIdentity identity("COM://X?Username=u", 1);
    CObjectOpenParams params;
    params.password = CMetaString(L"pw");
    params.domain = CMetaString(L"dom");
    CActivation activation;
    activation.Decide(true, identity, &params);
    const COAUTHIDENTITY* id = activation.server.pAuthInfo->pAuthIdentityData;
    EXPECT_EQ(Units(id->Password, id->PasswordLength), L"pw");
    EXPECT_EQ(id->PasswordLength, 2u);
    EXPECT_EQ(Units(id->Domain, id->DomainLength), L"dom");
}

}  // namespace
