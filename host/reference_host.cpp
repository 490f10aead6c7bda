#include "host/reference_host.h"

#include <algorithm>
#include <cctype>

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
    // Words 20 to 25 (the catalogue) are not offered yet, so the table is not valid for loads.
    table.RegisterHandler = &CReferenceHost::RegisterHandler;
    table.CheckObjectAccess = &CReferenceHost::CheckObjectAccess;
    g_accessHost = this;
}

CReferenceHost::~CReferenceHost()
{
    if (g_accessHost == this)
        g_accessHost = nullptr;
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
