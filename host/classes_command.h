#pragma once
// comtool classes: the registered classes a script can describe or create.

#include <nlohmann/json.hpp>

#include <string>

namespace Tool {

// A pattern with * or ? matches the whole ProgID or class identifier as a
// wildcard; any other pattern matches a part of either. Case is ignored, and
// an empty pattern matches everything.
bool MatchesClassPattern(const std::wstring& pattern, const std::wstring& text);

// {"pattern", "count", "classes": [{"progId", "classId", "threadingModel",
// "serverKind", "server", "typeLibrary", "typeLibraryFound"}]}, by ProgID.
nlohmann::json ListClasses(const std::string& pattern);

void PrintClasses(const nlohmann::json& listed);

}  // namespace Tool
