#pragma once
// Module-level state: the info record, whose module handle serves every string lookup.

#include <windows.h>

#include <string>

#include "platform/handler_info.h"

CCOMHandlerInfo& HandlerInfo();
HINSTANCE ModuleHandle();

// LoadStringA from the module's table into a buffer of the given size, as the
// callers' fixed buffers cut long texts. A missing id gives an empty text.
std::string LoadModuleString(UINT id, int bufferChars);
