#pragma once
// comtool classes: the registered classes a script can describe or create.

#include <nlohmann/json.hpp>

#include <string>

#include "contract/handler_base.h"
#include "metaobj/records.h"

namespace Tool {

// A pattern with * or ? matches the whole ProgID or class identifier as a
// wildcard; any other pattern matches a part of either. Case is ignored, and
// an empty pattern matches everything.
bool MatchesClassPattern(const std::wstring& pattern, const std::wstring& text);

// The ProgIDs under HKEY_CLASSES_ROOT that match, each described by the
// handler's attribute rows: {"pattern", "count", "classes": [{"progId",
// "classId", "version", "threadingModel", "serverKind", "server",
// "typeLibrary", "typeLibraryFound"}]}, in the registry's order.
nlohmann::json ListClasses(MetaObj::CMetaObjectHandler& handler, const std::string& pattern);

void PrintClasses(const nlohmann::json& listed);

}  // namespace Tool
