#include <gtest/gtest.h>

#include <cwchar>
#include <string>
#include <vector>

#include "host/call_line.h"

using Tool::CallLine;
using Tool::CallToken;
using Tool::ParseCallLine;

namespace {

// A token written as its text, with * in front when any part was quoted and
// the count of leading characters outside quotes behind a #.
std::wstring Shown(const CallToken& token)
{
    return (token.quoted ? L"*" : L"") + token.text + L"#" + std::to_wstring(token.plainLead);
}

TEST(CallLineTest, SplitsTargetKeyAndArguments)
{
    struct Row {
        const wchar_t* text;
        const wchar_t* target;
        const wchar_t* key;
        std::vector<std::wstring> arguments;
    };
    const Row rows[] = {
        {L"Get:Count", L"", L"Get:Count", {}},
        {L"  Invoke:Add   apple\t3  ", L"", L"Invoke:Add", {L"apple#5", L"3#1"}},
        {L"@2 Get:nodeName", L"@2", L"Get:nodeName", {}},
        {L"Invoke:Add \"two words\" \"\"", L"", L"Invoke:Add", {L"*two words#0", L"*#0"}},
        // Inside quotes \" and \\ are escapes; every other backslash stays.
        {LR"(Invoke:Find "say \"hi\"" "a\\b" C:\dir\file "C:\dir")", L"", L"Invoke:Find",
         {LR"(*say "hi"#0)", LR"(*a\b#0)", LR"(C:\dir\file#11)", LR"(*C:\dir#0)"}},
        // A type prefix counts only outside quotes: the quoted one is text.
        {L"Invoke:Add text:\"a b\" \"int:5\" int:5", L"", L"Invoke:Add", {L"*text:a b#5", L"*int:5#0", L"int:5#5"}},
        {L"Invoke:Add - \"-\" null @1", L"", L"Invoke:Add", {L"-#1", L"*-#0", L"null#4", L"@1#2"}},
        // Only a first word can be a target; a quoted one is not.
        {L"Invoke:Add @1 @2", L"", L"Invoke:Add", {L"@1#2", L"@2#2"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "line " << std::string(row.text, row.text + wcslen(row.text)));
        CallLine line;
        std::string error;
        ASSERT_TRUE(ParseCallLine(row.text, line, error)) << error;
        EXPECT_EQ(line.text, row.text);
        EXPECT_EQ(line.target, row.target);
        EXPECT_EQ(line.key, row.key);
        std::vector<std::wstring> arguments;
        for (const CallToken& token : line.arguments)
            arguments.push_back(Shown(token));
        EXPECT_EQ(arguments, row.arguments);
    }
}

TEST(CallLineTest, RefusesWhatIsNoCall)
{
    struct Row {
        const wchar_t* text;
        const char* error;
    };
    const Row rows[] = {
        {L"", "no method key"},
        {L"   ", "no method key"},
        {L"@1", "no method key"},
        {L"Count", "a call begins with a method key such as Invoke:Add or Get:Count"},
        {L"\"Get:Count\"", "a call begins with a method key such as Invoke:Add or Get:Count"},
        {L"@1 \"@2\" Get:Count", "a call begins with a method key such as Invoke:Add or Get:Count"},
        {L"Get:Item \"apple", "unterminated quote"},
        {L"Get:Item \"a\\\"", "unterminated quote"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "line " << std::string(row.text, row.text + wcslen(row.text)));
        CallLine line;
        std::string error;
        EXPECT_FALSE(ParseCallLine(row.text, line, error));
        EXPECT_EQ(error, row.error);
    }
}

}  // namespace
