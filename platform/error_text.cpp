#include "platform/error_text.h"

#include <atomic>
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

CHandlerErrorMap* ExistingThreadErrorMap()
{
    return static_cast<CHandlerErrorMap*>(TlsGetValue(g_errorSlot));
}

std::atomic<std::uint64_t> g_stamp{0};

}  // namespace

CHandlerErrorMap* GetThreadErrorMap()
{
    CHandlerErrorMap* map = ExistingThreadErrorMap();
    if (map == nullptr) {
        map = new (std::nothrow) CHandlerErrorMap;
        if (map != nullptr)
            TlsSetValue(g_errorSlot, map);
    }
    return map;
}

void SetErrorText(const CMetaObjectHandler* handler, const char* text)
{
    if (text == nullptr || *text == '\0') {
        ForgetErrorText(handler);
        return;
    }
    CHandlerErrorMap* map = GetThreadErrorMap();
    if (map == nullptr)
        return;
    CHandlerErrorEntry& entry = (*map)[KeyOf(handler)];
    entry.text.AssignNarrow(text);
    entry.stamp = ++g_stamp;
    if (map->size() > kMostThreadErrorTexts) {
        auto oldest = map->begin();
        for (auto at = map->begin(); at != map->end(); ++at) {
            if (at->second.stamp < oldest->second.stamp)
                oldest = at;
        }
        map->erase(oldest);
    }
}

void SetErrorTextById(const CMetaObjectHandler* handler, UINT id)
{
    SetErrorText(handler, LoadModuleString(id, kErrorTextChars).c_str());
}

const CMetaString& GetThreadErrorText(const CMetaObjectHandler* handler)
{
    // Reading makes nothing: a thread that only asks keeps no map.
    CHandlerErrorMap* map = ExistingThreadErrorMap();
    if (map == nullptr)
        return kEmptyMetaString;
    const auto found = map->find(KeyOf(handler));
    return found != map->end() ? found->second.text : kEmptyMetaString;
}

void ForgetErrorText(const CMetaObjectHandler* handler)
{
    if (CHandlerErrorMap* map = ExistingThreadErrorMap())
        map->erase(KeyOf(handler));
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
