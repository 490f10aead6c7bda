#include "platform/module_state.h"

#include <vector>

#include "text/meta_string.h"

// Defined together so that they are built in this order at load, before any other
// static of the module (their priorities run ahead of every unprioritised static,
// whatever its file), and destroyed in reverse: the info record last of all.
namespace {
CCOMHandlerInfo g_handlerInfo __attribute__((init_priority(1000)));
}  // namespace
const MetaObj::CMetaString MetaObj::kEmptyMetaString __attribute__((init_priority(1001))){};

CCOMHandlerInfo& HandlerInfo()
{
    return g_handlerInfo;
}

HINSTANCE ModuleHandle()
{
    return g_handlerInfo.moduleHandle;
}

std::string LoadModuleString(UINT id, int bufferChars)
{
    std::vector<char> buffer(static_cast<std::size_t>(bufferChars), '\0');
    LoadStringA(ModuleHandle(), id, buffer.data(), bufferChars);
    return std::string(buffer.data());
}
