#pragma once
// A live object opened through the module, and the calls run on it and on the
// objects its calls return.

#include <nlohmann/json.hpp>

#include <string>

#include "contract/handler_base.h"
#include "host/call_items.h"
#include "host/call_line.h"
#include "host/module_loader.h"
#include "host/reference_host.h"

namespace Tool {

// What goes into the host's CObjectOpenParams.
struct OpenOptions {
    std::string moniker;
    bool running = false;
    std::string host;
    std::string user;
    std::string password;
    std::string domain;
};

// One handler of the module, from GetHandlerObject; on destruction its
// catalogue is unloaded, its last use released (which closes the object) and
// the handler forgotten by the host and freed.
class CLiveObject {
public:
    CLiveObject(CHandlerModule& module, CReferenceHost& host);
    ~CLiveObject();
    CLiveObject(const CLiveObject&) = delete;
    CLiveObject& operator=(const CLiveObject&) = delete;

    MetaObj::MetaStatus Open(const std::string& identityText, const OpenOptions& options);
    // The catalogue of the object the handler holds.
    MetaObj::MetaStatus LoadCatalogue();

    MetaObj::CMetaObjectHandler& Handler() { return *handler; }

private:
    CHandlerModule& module;
    CReferenceHost& host;
    MetaObj::CMetaObjectHandler* handler;
    bool catalogueLoaded = false;
};

class CCallSession {
public:
    enum class Outcome { Ok, Failed, BadInput };

    // The object and whether its catalogue is loaded; both outlive the session.
    CCallSession(MetaObj::CMetaObjectHandler& object, bool hasCatalogue);
    CCallSession(const CCallSession&) = delete;
    CCallSession& operator=(const CCallSession&) = delete;

    // Runs one call. report receives the call's JSON unless the input was bad;
    // failure receives one line unless the outcome is Ok.
    Outcome Run(const CallLine& line, nlohmann::json& report, std::string& failure);

    std::size_t HandleCount() const { return handles.Count(); }
    // The handles of the session, for items that other operations return.
    CHandleTable& Handles() { return handles; }
    // Gives back every returned object; the session can't be used after this.
    void ReleaseHandles() { handles.Clear(); }

private:
    MetaObj::CMetaObjectHandler& object;
    bool hasCatalogue;
    CHandleTable handles;
};

}  // namespace Tool
