#include "platform/error_text.h"

#include <new>

#include "platform/module_state.h"

namespace MetaObj {
namespace {

constexpr int kErrorTextChars = 256;

DWORD g_errorSlot = TLS_OUT_OF_INDEXES;

std::uintptr_t KeyOf(const CMetaObjectHandler* handler)
{
    return reinterpret_cast<std::uintptr_t>(handler);
}

}  // namespace

CHandlerErrorMap* GetThreadErrorMap()
{
    auto* map = static_cast<CHandlerErrorMap*>(TlsGetValue(g_errorSlot));
    if (map == nullptr) {
        map = new (std::nothrow) CHandlerErrorMap;
        if (map != nullptr)
            TlsSetValue(g_errorSlot, map);
    }
    return map;
}

void SetErrorText(const CMetaObjectHandler* handler, const char* text)
{
    CHandlerErrorMap* map = GetThreadErrorMap();
    if (map == nullptr)
        return;
    // An empty text leaves an empty entry; it is not removed.
    (*map)[KeyOf(handler)].AssignNarrow(text);
}

void SetErrorTextById(const CMetaObjectHandler* handler, UINT id)
{
    SetErrorText(handler, LoadModuleString(id, kErrorTextChars).c_str());
}

const CMetaString& GetThreadErrorText(const CMetaObjectHandler* handler)
{
    CHandlerErrorMap* map = GetThreadErrorMap();
    if (map == nullptr)
        return kEmptyMetaString;
    return (*map)[KeyOf(handler)];
}

void ErrorTextProcessAttach()
{
    g_errorSlot = TlsAlloc();
}

void ErrorTextThreadDetach()
{
    auto* map = static_cast<CHandlerErrorMap*>(TlsGetValue(g_errorSlot));
    if (map == nullptr)
        return;
    TlsSetValue(g_errorSlot, nullptr);
    delete map;
}

void ErrorTextProcessDetach()
{
    // Maps of other threads that are still alive are left as they are.
    ErrorTextThreadDetach();
    TlsFree(g_errorSlot);
    g_errorSlot = TLS_OUT_OF_INDEXES;
}

}  // namespace MetaObj
