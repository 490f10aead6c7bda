#include "contract/host_environment.h"

namespace MetaObj {
namespace {

// A plain store, read without a lock: the host sets it before it starts work.
CHandlerEnvironment* g_environment = nullptr;

CHandlerEnvironment* ValidEnvironment()
{
    return IsValid(g_environment) ? g_environment : nullptr;
}

}  // namespace

CHandlerEnvironment* Environment()
{
    return g_environment;
}

void SetEnvironmentTable(CHandlerEnvironment* table)
{
    g_environment = table;
}

bool IsValid(const CHandlerEnvironment* table)
{
    return table != nullptr && table->context != nullptr && table->BeginObjectLoad != nullptr &&
           table->EndObjectLoad != nullptr && table->ReleaseObjectLoad != nullptr &&
           table->AddMethodEntry != nullptr && table->ReservedEntry != nullptr &&
           table->GetMethodTable != nullptr;
}

bool HostBeginObjectLoad(CObjectIdentity& identity, std::uint8_t& mustLoad)
{
    CHandlerEnvironment* table = ValidEnvironment();
    return table != nullptr && table->BeginObjectLoad(table->context, &identity, &mustLoad);
}

bool HostEndObjectLoad(CObjectIdentity& identity, bool succeeded)
{
    CHandlerEnvironment* table = ValidEnvironment();
    return table != nullptr && table->EndObjectLoad(table->context, &identity, succeeded ? 1 : 0);
}

void HostReleaseObjectLoad(CObjectIdentity& identity)
{
    if (CHandlerEnvironment* table = ValidEnvironment())
        table->ReleaseObjectLoad(table->context, &identity);
}

void HostAddMethodEntry(CObjectIdentity& identity, CMethodEntry& entry)
{
    if (CHandlerEnvironment* table = ValidEnvironment())
        table->AddMethodEntry(table->context, &identity, &entry);
}

CMetaObjectMethodTable* HostGetMethodTable(CObjectIdentity& identity)
{
    CHandlerEnvironment* table = ValidEnvironment();
    return table != nullptr ? table->GetMethodTable(table->context, &identity) : nullptr;
}

void HostRegisterHandler(CMetaObjectHandler* handler, HINSTANCE module)
{
    // Only the context word is tested here, not the whole table.
    if (g_environment != nullptr && g_environment->context != nullptr && g_environment->RegisterHandler != nullptr)
        g_environment->RegisterHandler(g_environment->context, handler, module);
}

bool HostCheckObjectAccess(CMetaObjectSecurityInfo& info)
{
    if (g_environment == nullptr || g_environment->CheckObjectAccess == nullptr)
        return true;
    return g_environment->CheckObjectAccess(&info);
}

}  // namespace MetaObj
