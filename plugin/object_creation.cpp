// The road from the host's request to a live object: a moniker, the running
// object table, or a class factory, here or on another machine.

#include "plugin/object_creation.h"

#include <oleauto.h>

#include <string>

#include "contract/host_environment.h"
#include "metaobj/records.h"
#include "platform/error_text.h"
#include "platform/module_state.h"
#include "platform/platform_handles.h"
#include "plugin/com_handler.h"

using namespace MetaObj;

namespace {

// The attribute, or else the host's default when there are parameters.
CMetaString AttributeOr(const CCOMIdentity& identity, const char* name, const CObjectOpenParams* params,
                        const CMetaString CObjectOpenParams::*fallback)
{
    const std::string& given = identity.GetAttribute(std::string(name));
    if (!given.empty())
        return CMetaString(given.c_str());
    return params ? params->*fallback : CMetaString();
}

USHORT* Units(const CMetaString& text)
{
    return text.IsEmpty() ? nullptr : reinterpret_cast<USHORT*>(const_cast<wchar_t*>(text.GetWide()));
}

ULONG UnitCount(const CMetaString& text)
{
    return text.IsEmpty() ? 0 : text.GetLength();
}

}  // namespace

void CActivation::Decide(bool dcomEnabled, const CCOMIdentity& identity, const CObjectOpenParams* params)
{
    classContext = kAnyClassContext;
    serverInfo = nullptr;
    server = COSERVERINFO{};
    authInfo = COAUTHINFO{};
    authIdentity = COAUTHIDENTITY{};
    if (!dcomEnabled)
        return;

    hostName = AttributeOr(identity, "Host", params, &CObjectOpenParams::host);
    if (!hostName.IsEmpty()) {
        classContext = CLSCTX_REMOTE_SERVER;
        serverInfo = &server;
        server.pwszName = const_cast<LPWSTR>(hostName.GetWide());
    }
    userName = AttributeOr(identity, "Username", params, &CObjectOpenParams::userName);
    // A password or a domain without a user name has no effect.
    if (userName.IsEmpty())
        return;
    serverInfo = &server;
    server.pAuthInfo = &authInfo;
    authInfo.dwAuthnSvc = RPC_C_AUTHN_WINNT;
    authInfo.dwAuthzSvc = RPC_C_AUTHZ_NONE;
    authInfo.pwszServerPrincName = nullptr;
    authInfo.dwAuthnLevel = RPC_C_AUTHN_LEVEL_DEFAULT;
    authInfo.dwImpersonationLevel = RPC_C_IMP_LEVEL_IMPERSONATE;
    authInfo.pAuthIdentityData = &authIdentity;
    authInfo.dwCapabilities = EOAC_NONE;

    password = AttributeOr(identity, "Password", params, &CObjectOpenParams::password);
    domain = AttributeOr(identity, "Domain", params, &CObjectOpenParams::domain);
    authIdentity.User = Units(userName);
    authIdentity.UserLength = UnitCount(userName);
    authIdentity.Password = Units(password);
    authIdentity.PasswordLength = UnitCount(password);
    authIdentity.Domain = Units(domain);
    authIdentity.DomainLength = UnitCount(domain);
    authIdentity.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
}

MetaStatus CMetaObjectCOMHandler::OpenObject(const char* identityText, CObjectOpenParams* params)
{
    SetErrorText(this, "");
    if (!CheckAccess(identityText))
        return MetaStatusDenied;
    const CCOMIdentity local(identityText, 1);
    if (!local.IsComplete())
        return MetaStatusBadIdentity;

    const bool hasMoniker = params && !params->moniker.IsEmpty();
    const bool useRunning = params && params->useRunningObject != 0;
    IDispatch* dispatch = nullptr;
    if (hasMoniker) {
        dispatch = GetObjectFromMoniker(params->moniker.GetWide());
    } else if (useRunning) {
        CLSID classId;
        if (!local.GetClassId(classId))
            return MetaStatusBadIdentity;
        dispatch = GetRunningObject(classId);
    } else {
        dispatch = CreateFromFactory(local, params);
    }
    if (!dispatch)
        return MetaStatusNoObject;
    return AttachObject(dispatch, identityText);
}

bool CMetaObjectCOMHandler::CheckAccess(const char* identityText)
{
    const CHandlerEnvironment* environment = Environment();
    if (!environment || !environment->CheckObjectAccess)
        return true;
    CMetaObjectSecurityInfo info;
    const char* typeName = HandlerInfo().GetHandlerTypeName();
    info.objectType = typeName ? typeName : "";
    const CCOMIdentity local(identityText, 1);
    std::string progId;
    if (local.GetProgId(progId))
        info.objectName = progId;
    return HostCheckObjectAccess(info);
}

IDispatch* CMetaObjectCOMHandler::GetObjectFromMoniker(const wchar_t* displayName)
{
    BIND_OPTS options{};
    options.cbStruct = sizeof(BIND_OPTS);
    options.grfFlags = 0;
    options.grfMode = STGM_READWRITE;
    options.dwTickCountDeadline = 0;
    IDispatch* dispatch = nullptr;
    if (FAILED(CoGetObject(displayName, &options, IID_IDispatch, reinterpret_cast<void**>(&dispatch))))
        return nullptr;
    return dispatch;
}

IDispatch* CMetaObjectCOMHandler::GetRunningObject(const CLSID& classId)
{
    try {
        ComPtr<IUnknown> running;
        if (FAILED(GetActiveObject(classId, nullptr, running.Put())) || !running)
            return nullptr;
        ComPtr<IDispatch> dispatch;
        if (FAILED(running.As(dispatch)))
            return nullptr;
        return dispatch.Detach();
    } catch (...) {
        return nullptr;
    }
}

IDispatch* CMetaObjectCOMHandler::CreateFromFactory(const CCOMIdentity& local, const CObjectOpenParams* params)
{
    try {
        // Holds the texts the structures point into until the request is done.
        CActivation activation;
        activation.Decide(dcomEnabled, local, params);
        CLSID classId;
        if (!local.GetClassId(classId))
            return nullptr;
        ComPtr<IClassFactory> factory;
        if (FAILED(CoGetClassObject(classId, activation.classContext, activation.serverInfo, IID_IClassFactory,
                                    factory.PutVoid())) ||
            !factory)
            return nullptr;
        IDispatch* dispatch = nullptr;
        if (FAILED(factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&dispatch))))
            return nullptr;
        return dispatch;
    } catch (...) {
        return nullptr;
    }
}
