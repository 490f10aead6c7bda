#pragma once
// One call as a user writes it: an optional target handle, a method key and
// its arguments, separated by spaces, with double quotes grouping.

#include <cstddef>
#include <string>
#include <vector>

namespace Tool {

struct CallToken {
    std::wstring text;
    // Characters at the start that stood outside quotes: a type prefix such as
    // "int:" counts only there, so a quoted "int:5" stays text.
    std::size_t plainLead = 0;
    bool quoted = false;

    bool IsPlain(const wchar_t* word) const { return !quoted && text == word; }
};

struct CallLine {
    std::wstring text;    // as given, for the report
    std::wstring target;  // "@N", or empty for the opened object
    std::wstring key;     // "Get:Count"
    std::vector<CallToken> arguments;
};

// Inside quotes \" stands for a quote and \\ for a backslash; every other
// backslash is itself, so Windows paths need no doubling. False with a reason
// for an unterminated quote, an empty line or a first word that is no key.
bool ParseCallLine(const std::wstring& text, CallLine& out, std::string& error);

}  // namespace Tool
