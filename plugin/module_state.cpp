#include "plugin/module_state.h"

#include <vector>

#include "metaobj/server.h"
#include "text/meta_string.h"
#include "text/mox_data.h"

// Defined together so that they are built in this order at load, before any other
// static of the module, and destroyed in reverse: the info record last of all.
namespace {
CCOMHandlerInfo g_handlerInfo __attribute__((init_priority(1000)));
}  // namespace
const MetaObj::CMetaString MetaObj::kEmptyMetaString __attribute__((init_priority(1001))){};

// The framework's own statics, built after the two above and kept for the life
// of the load. Nothing in this module reads them.
namespace {
struct CMoxTextWithWord {
    MetaObj::MoxText text;
    std::uint32_t word = 0;
};
MetaObj::MoxText g_frameworkText;
CMoxTextWithWord g_frameworkTextWithWord;
MetaObj::CMetaObjectServer g_frameworkServer;
}  // namespace

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
