#include "host/call_line.h"

#include <cwctype>

namespace Tool {

namespace {

bool SplitTokens(const std::wstring& text, std::vector<CallToken>& tokens, std::string& error)
{
    std::size_t at = 0;
    while (at < text.size()) {
        if (std::iswspace(text[at])) {
            ++at;
            continue;
        }
        CallToken token;
        bool inQuotes = false;
        bool leadOpen = true;
        for (; at < text.size(); ++at) {
            const wchar_t c = text[at];
            if (!inQuotes && std::iswspace(c))
                break;
            if (c == L'"') {
                inQuotes = !inQuotes;
                token.quoted = true;
                leadOpen = false;
                continue;
            }
            if (inQuotes && c == L'\\' && at + 1 < text.size() && (text[at + 1] == L'"' || text[at + 1] == L'\\'))
                ++at;
            token.text += text[at];
            if (leadOpen)
                ++token.plainLead;
        }
        if (inQuotes) {
            error = "unterminated quote";
            return false;
        }
        tokens.push_back(token);
    }
    return true;
}

}  // namespace

bool ParseCallLine(const std::wstring& text, CallLine& out, std::string& error)
{
    std::vector<CallToken> tokens;
    if (!SplitTokens(text, tokens, error))
        return false;
    out = CallLine();
    out.text = text;
    std::size_t next = 0;
    if (next < tokens.size() && !tokens[next].quoted && !tokens[next].text.empty() && tokens[next].text[0] == L'@')
        out.target = tokens[next++].text;
    if (next == tokens.size()) {
        error = "no method key";
        return false;
    }
    const CallToken& key = tokens[next++];
    if (key.quoted || key.text.find(L':') == std::wstring::npos) {
        error = "a call begins with a method key such as Invoke:Add or Get:Count";
        return false;
    }
    out.key = key.text;
    out.arguments.assign(tokens.begin() + static_cast<std::ptrdiff_t>(next), tokens.end());
    return true;
}

}  // namespace Tool
