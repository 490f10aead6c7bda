#include <gtest/gtest.h>

#include <string>

#include "host/classes_command.h"

namespace {

// A pattern is a substring, or with wildcards a whole name, ignoring case.
TEST(ClassPatternTest, SubstringOrWildcardIgnoringCase)
{
    const struct { const wchar_t *pattern, *text; bool matches; } rows[] = {
        {L"", L"Scripting.Dictionary", true},          {L"SCRIPTING.D", L"Scripting.Dictionary", true},
        {L"dictionaries", L"Scripting.Dictionary", false}, {L"scripting.*", L"Scripting.Dictionary", true},
        {L"*.dict*", L"Scripting.Dictionary", true},   {L"dict*", L"Scripting.Dictionary", false},
        {L"msxml2.domdocument.?.0", L"Msxml2.DOMDocument.6.0", true},
        {L"msxml2.domdocument.?.0", L"Msxml2.DOMDocument", false},
        {L"msxml2.domdocument.?.0", L"Msxml2.DOMDocument.2.6", false},
        {L"*a*b*c", L"xaxxbxxcxc", true},              {L"*a*b*c", L"xaxxbxxcx", false},
        {L"*", L"", true},                              {L"{ee09b103*", L"{EE09B103-97E0-11CF-978F-00A02463E06F}", true},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Tool::MatchesClassPattern(row.pattern, row.text), row.matches) << std::wstring(row.pattern) << L" ~ " << row.text;
}

}  // namespace
