#pragma once
// Texts and names that the tool's commands share: UTF-8 for the terminal and
// for JSON, wide text for the module, and the names of statuses and meta types.

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

#include "contract/handler_base.h"
#include "text/meta_string.h"

namespace Tool {

std::string Utf8(const wchar_t* wide);
std::string Utf8(const std::wstring& wide);
std::string Utf8(const MetaObj::CMetaString& text);
// codePage is CP_ACP for the command line, CP_UTF8 for standard input.
std::wstring Widen(const std::string& text, unsigned codePage);

const char* StatusName(MetaObj::MetaStatus status);
// {code, name}
nlohmann::json StatusOf(MetaObj::MetaStatus status);
// "Name (code)"
std::string StatusText(MetaObj::MetaStatus status);

// The name of a meta type code as people read it, and the item class the
// framework makes for it; both "Unknown" style texts for codes outside the family.
const char* MetaTypeName(std::uint32_t type);
const char* ItemClassName(std::uint32_t type);

}  // namespace Tool
