#pragma once
// Values of the tool's JSON reports as one line of text each.

#include <nlohmann/json.hpp>

#include <string>

namespace Tool {

// Texts quoted with line breaks spelt out, enumerations with their names,
// records as {name: value}, arrays by their bounds and nested by dimension:
// "(0 to 1, 5 to 7) [[a, b, c], [d, e, f]]"; none for no item.
std::string ValueText(const nlohmann::json& item);
// The value, then its meta type, class and signature in brackets.
std::string ItemText(const nlohmann::json& item);

}  // namespace Tool
