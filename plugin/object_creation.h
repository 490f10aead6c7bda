#pragma once
// How a class factory is asked for an object: on this machine, or on another
// one with credentials, as the identity's attributes and the host's defaults say.

#include <windows.h>
#include <objbase.h>

#include "contract/open_params.h"
#include "identity/com_identity.h"
#include "text/meta_string.h"

// CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER
constexpr DWORD kAnyClassContext = 23;

// The arguments for CoGetClassObject. The structures point into the texts
// held here, so the whole must stay put while COM reads it.
class CActivation {
public:
    CActivation() = default;
    CActivation(const CActivation&) = delete;
    CActivation& operator=(const CActivation&) = delete;

    // Settles everything from the identity's "Host", "Username", "Password"
    // and "Domain" attributes, each before its default in params (which may be
    // null). Without DCOM on this machine none of them is read.
    void Decide(bool dcomEnabled, const CCOMIdentity& identity, const MetaObj::CObjectOpenParams* params);

    DWORD classContext = kAnyClassContext;
    COSERVERINFO* serverInfo = nullptr;  // null, or &server

    COSERVERINFO server{};
    COAUTHINFO authInfo{};
    COAUTHIDENTITY authIdentity{};
    MetaObj::CMetaString hostName;
    MetaObj::CMetaString userName;
    MetaObj::CMetaString password;
    MetaObj::CMetaString domain;
};
