#include "host/reference_host.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "contract/handler_base.h"
#include "identity/object_identity.h"
#include "metaobj/records.h"

namespace {

// The access entry gets the record alone, without the context word, so a host
// can only find its policy through state of its own: here, the live host.
CReferenceHost* g_accessHost = nullptr;

std::string Folded(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

CReferenceHost::CReferenceHost()
{
    InitializeCriticalSection(&section);
    table.context = this;
    table.BeginObjectLoad = &CReferenceHost::BeginObjectLoad;
    table.EndObjectLoad = &CReferenceHost::EndObjectLoad;
    table.ReleaseObjectLoad = &CReferenceHost::ReleaseObjectLoad;
    table.AddMethodEntry = &CReferenceHost::AddMethodEntry;
    table.ReservedEntry = reinterpret_cast<void*>(&CReferenceHost::ReservedEntry);
    table.GetMethodTable = &CReferenceHost::GetMethodTable;
    table.RegisterHandler = &CReferenceHost::RegisterHandler;
    table.CheckObjectAccess = &CReferenceHost::CheckObjectAccess;
    g_accessHost = this;
}

CReferenceHost::~CReferenceHost()
{
    if (g_accessHost == this)
        g_accessHost = nullptr;
    for (auto& load : loads)
        DeleteEntries(load.second.table);
    DeleteCriticalSection(&section);
}

std::vector<CReferenceHost::Registration> CReferenceHost::Registrations() const
{
    Lock hold(section);
    return registrations;
}

void CReferenceHost::AllowAll()
{
    Lock hold(section);
    denied.clear();
}

void CReferenceHost::Deny(const std::string& progId)
{
    Lock hold(section);
    denied.insert(Folded(progId));
}

std::vector<std::string> CReferenceHost::AccessRequests() const
{
    Lock hold(section);
    return accessRequests;
}

void CReferenceHost::ClearRecords()
{
    Lock hold(section);
    accessRequests = {};
    loadCalls = {};
}

std::size_t CReferenceHost::FreeReleasedHandlers(FreeHandlerObjectFn freeHandler)
{
    std::vector<MetaObj::CMetaObjectHandler*> released;
    {
        Lock hold(section);
        auto unused = std::stable_partition(registrations.begin(), registrations.end(), [](const Registration& entry) {
            return entry.handler->GetUseCount() != 0;
        });
        for (auto at = unused; at != registrations.end(); ++at)
            released.push_back(at->handler);
        registrations.erase(unused, registrations.end());
    }
    // Freed outside the lock: a handler's destructor may release objects whose
    // own handlers register or release in turn.
    for (MetaObj::CMetaObjectHandler* handler : released)
        freeHandler(handler);
    return released.size();
}

void CReferenceHost::Forget(MetaObj::CMetaObjectHandler* handler)
{
    Lock hold(section);
    registrations.erase(std::remove_if(registrations.begin(), registrations.end(),
                                       [&](const Registration& entry) { return entry.handler == handler; }),
                        registrations.end());
}

bool CReferenceHost::RegisterHandler(void* context, MetaObj::CMetaObjectHandler* handler, HINSTANCE module)
{
    auto* host = static_cast<CReferenceHost*>(context);
    Lock hold(host->section);
    host->registrations.push_back({handler, module});
    return true;
}

bool CReferenceHost::CheckObjectAccess(MetaObj::CMetaObjectSecurityInfo* info)
{
    CReferenceHost* host = g_accessHost;
    if (host == nullptr || info == nullptr)
        return true;
    Lock hold(host->section);
    host->accessRequests.push_back(info->objectName);
    return host->denied.count(Folded(info->objectName)) == 0;
}

void CReferenceHost::AnswerNextLoad(LoadAnswer answer)
{
    Lock hold(section);
    nextAnswer = answer;
}

void CReferenceHost::RefuseEnds(bool refuse)
{
    Lock hold(section);
    refuseEnds = refuse;
}

std::vector<std::string> CReferenceHost::LoadCalls() const
{
    Lock hold(section);
    return loadCalls;
}

bool CReferenceHost::IsLoaded(const std::string& identityText) const
{
    Lock hold(section);
    const auto found = loads.find(identityText);
    return found != loads.end() && found->second.loaded;
}

void CReferenceHost::DeleteEntries(MetaObj::CMetaObjectMethodTable& table)
{
    for (MetaObj::CMethodEntry* entry : table.entries)
        delete entry;
    table.entries.clear();
}

bool CReferenceHost::BeginObjectLoad(void* context, MetaObj::CObjectIdentity* identity, std::uint8_t* mustLoad)
{
    auto* host = static_cast<CReferenceHost*>(context);
    Lock hold(host->section);
    host->loadCalls.push_back("Begin");
    const LoadAnswer answer = std::exchange(host->nextAnswer, LoadAnswer::Normal);
    if (answer == LoadAnswer::Refuse || identity == nullptr || mustLoad == nullptr)
        return false;
    LoadState& state = host->loads[identity->GetText()];
    ++state.users;
    const bool fill = answer == LoadAnswer::Reload || (answer == LoadAnswer::Normal && !state.loaded);
    *mustLoad = fill ? 1 : 0;
    if (fill) {
        DeleteEntries(state.table);
        state.loaded = false;
        state.loading = true;
    }
    return true;
}

bool CReferenceHost::EndObjectLoad(void* context, MetaObj::CObjectIdentity* identity, std::uint8_t succeeded)
{
    auto* host = static_cast<CReferenceHost*>(context);
    Lock hold(host->section);
    host->loadCalls.push_back("End");
    if (identity == nullptr || host->refuseEnds)
        return false;
    LoadState& state = host->loads[identity->GetText()];
    if (state.loading) {
        state.loading = false;
        state.loaded = succeeded != 0;
        if (!state.loaded)
            DeleteEntries(state.table);
    }
    return true;
}

bool CReferenceHost::ReleaseObjectLoad(void* context, MetaObj::CObjectIdentity* identity)
{
    auto* host = static_cast<CReferenceHost*>(context);
    Lock hold(host->section);
    host->loadCalls.push_back("Release");
    if (identity == nullptr)
        return false;
    // The table stays for the next user of the identity, as a host's cache would.
    const auto found = host->loads.find(identity->GetText());
    if (found != host->loads.end() && found->second.users > 0)
        --found->second.users;
    return true;
}

bool CReferenceHost::AddMethodEntry(void* context, MetaObj::CObjectIdentity* identity, MetaObj::CMethodEntry* entry)
{
    auto* host = static_cast<CReferenceHost*>(context);
    Lock hold(host->section);
    host->loadCalls.push_back("Add");
    if (identity == nullptr || entry == nullptr)
        return false;
    // The caller destroys its entry on return: keep a deep copy.
    auto copy = new MetaObj::CMethodEntry;
    copy->displayName = entry->displayName;
    copy->methodName = entry->methodName;
    copy->description = entry->description;
    copy->returnType = entry->returnType;
    copy->kind = entry->kind;
    if (entry->params) {
        for (const MetaObj::CParamEntry* param : *entry->params) {
            auto paramCopy = new MetaObj::CParamEntry(param->name, param->type, param->direction);
            paramCopy->isOptional = param->isOptional;
            paramCopy->isAny = param->isAny;
            copy->AddParam(paramCopy);
        }
    }
    host->loads[identity->GetText()].table.entries.push_back(copy);
    return true;
}

MetaObj::CMetaObjectMethodTable* CReferenceHost::GetMethodTable(void* context, MetaObj::CObjectIdentity* identity)
{
    auto* host = static_cast<CReferenceHost*>(context);
    Lock hold(host->section);
    if (identity == nullptr)
        return nullptr;
    const auto found = host->loads.find(identity->GetText());
    return found == host->loads.end() ? nullptr : &found->second.table;
}

// Word 24 must be present; the module never calls it.
void CReferenceHost::ReservedEntry() {}
