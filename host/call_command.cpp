#include "host/call_command.h"

#include <windows.h>

#include <cstdio>
#include <iostream>
#include <vector>

#include "host/call_line.h"
#include "host/tool_text.h"

namespace Tool {

using nlohmann::json;
using MetaObj::MetaStatus;

namespace {

// The calls in order: the arguments as given, or lines of standard input
// without blank lines and "#" comments. Given calls are all read before the
// object is made, so that a typo in the last one has no effect on the object.
class CCallSource {
public:
    enum class Read { Call, End, Bad };

    explicit CCallSource(const std::vector<std::string>& given) : fromInput(given.size() == 1 && given[0] == "-")
    {
        if (!fromInput) {
            for (const std::string& text : given)
                texts.push_back(Widen(text, CP_ACP));
        }
    }

    // The first call that can't be read, as Next would report it.
    bool CheckGiven(std::string& error) const
    {
        for (const std::wstring& text : texts) {
            CallLine line;
            if (!Parse(text, line, error))
                return false;
        }
        return true;
    }

    Read Next(CallLine& line, std::string& error)
    {
        std::wstring text;
        if (!(fromInput ? ReadInput(text) : ReadGiven(text)))
            return Read::End;
        return Parse(text, line, error) ? Read::Call : Read::Bad;
    }

private:
    static bool Parse(const std::wstring& text, CallLine& line, std::string& error)
    {
        if (ParseCallLine(text, line, error))
            return true;
        error = Utf8(text) + ": " + error;
        return false;
    }

    bool ReadGiven(std::wstring& text)
    {
        if (next == texts.size())
            return false;
        text = texts[next++];
        return true;
    }

    static bool ReadInput(std::wstring& text)
    {
        std::string line;
        while (std::getline(std::cin, line)) {
            const std::size_t first = line.find_first_not_of(" \t\r");
            if (first == std::string::npos || line[first] == '#')
                continue;
            const std::size_t last = line.find_last_not_of(" \t\r");
            text = Widen(line.substr(first, last - first + 1), CP_UTF8);
            return true;
        }
        return false;
    }

    bool fromInput;
    std::vector<std::wstring> texts;
    std::size_t next = 0;
};

void PrintRow(const std::string& label, const std::string& value)
{
    std::printf("%-18s %s\n", label.c_str(), value.c_str());
}

bool IsTextual(const json& item)
{
    const std::string type = item.value("metaType", "");
    return type == "String" || type == "Char" || type == "Date" || type == "Currency";
}

// Line breaks and tabs are spelt out, so that every value stays on its row.
std::string OneLine(const std::string& text)
{
    std::string line;
    for (const char c : text) {
        if (c == '\r')
            line += "\\r";
        else if (c == '\n')
            line += "\\n";
        else if (c == '\t')
            line += "\\t";
        else
            line += c;
    }
    return line;
}

std::string ValueText(const json& item);

// Elements come in the order of the walk, the last dimension fastest, so the
// elements of one index of dimension d are a run of the product of the later counts.
std::string NestedElements(const json& elements, const std::vector<std::int64_t>& counts, std::size_t dimension,
                           std::size_t first)
{
    std::size_t stride = 1;
    for (std::size_t later = dimension + 1; later < counts.size(); ++later)
        stride *= static_cast<std::size_t>(counts[later]);
    std::string text = "[";
    for (std::int64_t index = 0; index < counts[dimension]; ++index) {
        if (index > 0)
            text += ", ";
        const std::size_t at = first + static_cast<std::size_t>(index) * stride;
        text += dimension + 1 == counts.size() ? ValueText(elements[at])
                                               : NestedElements(elements, counts, dimension + 1, at);
    }
    return text + "]";
}

// "(0 to 1, 5 to 7) [[a, b, c], [d, e, f]]". A shape whose element count the
// table doesn't match (a size left open) is shown flat.
std::string ArrayText(const json& item)
{
    const json& elements = item["elements"];
    std::vector<std::int64_t> counts;
    std::string shape;
    std::int64_t product = 1;
    for (const json& bound : item.value("bounds", json::array())) {
        const std::int64_t lower = bound["lower"].get<std::int64_t>();
        const std::int64_t count = bound["count"].get<std::int64_t>();
        shape += (shape.empty() ? "(" : ", ") + std::to_string(lower) + " to " + std::to_string(lower + count - 1);
        counts.push_back(count);
        product *= count;
    }
    shape += shape.empty() ? "" : ") ";
    const bool fits = !counts.empty() && product >= 0 && static_cast<std::size_t>(product) == elements.size();
    if (fits && product > 0)
        return shape + NestedElements(elements, counts, 0, 0);
    std::string text = "[";
    for (const json& element : elements)
        text += (text.size() > 1 ? ", " : "") + ValueText(element);
    return shape + text + "]";
}

std::string ValueText(const json& item)
{
    if (item.is_null())
        return "none";
    if (item.contains("elements"))
        return ArrayText(item);
    if (item.contains("members")) {
        std::string text = "{";
        for (const json& member : item["members"])
            text += (text.size() > 1 ? ", " : "") + member.value("name", "") + ": " + ValueText(member);
        return text + "}";
    }
    std::string text = item.value("text", "");
    if (IsTextual(item))
        text = "\"" + OneLine(text) + "\"";
    if (item.contains("enumName"))
        text += " (" + item["enumName"].get<std::string>() + ")";
    return text;
}

}  // namespace

std::string ItemText(const json& item)
{
    if (item.is_null())
        return "none";
    std::string type = item["metaType"].get<std::string>() + ", " + item["class"].get<std::string>();
    if (!item["signature"].get<std::string>().empty())
        type += ", " + item["signature"].get<std::string>();
    return ValueText(item) + "  [" + type + "]";
}

void PrintCallReport(const json& call)
{
    std::printf("\n> %s\n", call["call"].get<std::string>().c_str());
    PrintRow("status:", call["status"]["name"].get<std::string>() + " (" +
                            std::to_string(call["status"]["code"].get<std::uint32_t>()) + ")");
    const json& record = call["record"];
    PrintRow("record:", "code " + std::to_string(record["code"].get<std::uint32_t>()) + ", source \"" +
                            record["source"].get<std::string>() + "\", description \"" +
                            record["description"].get<std::string>() + "\"");
    PrintRow("result:", ItemText(call["result"]));
    for (const json& param : call["outParams"]) {
        const std::string name = param["name"].get<std::string>();
        PrintRow(param["direction"].get<std::string>() + " " +
                     (name.empty() ? "#" + std::to_string(param["index"].get<std::size_t>() + 1) : name) + ":",
                 ItemText(param));
    }
    std::fflush(stdout);
}

int RunCallCommand(CHandlerModule& module, CReferenceHost& host, const CallCommand& command)
{
    json document = {{"identity", command.identity}, {"calls", json::array()}};
    std::string failure;
    int exitCode = 0;
    CCallSource source(command.calls);
    if (!source.CheckGiven(failure))
        exitCode = kExitBadInput;
    if (exitCode == 0) {
        CLiveObject live(module, host);
        const MetaStatus openStatus = live.Open(command.identity, command.options);
        document["open"] = StatusOf(openStatus);
        if (openStatus != MetaObj::MetaStatusOk) {
            failure = "cannot open " + command.identity + ": status " + StatusText(openStatus);
            const std::string why = Utf8(live.Handler().GetErrorText());
            if (!why.empty())
                failure += ": " + why;
            exitCode = kExitCallFailed;
        } else {
            const MetaStatus catalogueStatus = live.LoadCatalogue();
            document["catalogue"] = StatusOf(catalogueStatus);
            document["errorText"] = Utf8(live.Handler().GetErrorText());
            if (!command.asJson) {
                PrintRow("identity:", command.identity);
                PrintRow("catalogue:", StatusText(catalogueStatus) +
                                           (catalogueStatus == MetaObj::MetaStatusOk ? "" : ", arguments are guessed"));
            }
            CCallSession session(live.Handler(), catalogueStatus == MetaObj::MetaStatusOk);
            CallLine line;
            CCallSource::Read read;
            while (exitCode == 0 && (read = source.Next(line, failure)) != CCallSource::Read::End) {
                if (read == CCallSource::Read::Bad) {
                    exitCode = kExitBadInput;
                    break;
                }
                json report;
                const CCallSession::Outcome outcome = session.Run(line, report, failure);
                if (outcome == CCallSession::Outcome::BadInput) {
                    exitCode = kExitBadInput;
                    break;
                }
                document["calls"].push_back(report);
                if (outcome == CCallSession::Outcome::Failed)
                    exitCode = kExitCallFailed;
                else if (!command.asJson)
                    PrintCallReport(report);
            }
            document["handles"] = session.HandleCount();
            session.ReleaseHandles();
        }
    }
    // The handlers the module made for returned objects are the host's to free;
    // one still in use after everything was given back is a leak.
    host.FreeReleasedHandlers(module.FreeHandlerObject);
    document["handlersInUse"] = host.Registrations().size();
    document["failure"] = failure;
    if (command.asJson)
        std::printf("%s\n", document.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    if (!failure.empty())
        std::fprintf(stderr, "comtool: %s\n", failure.c_str());
    return exitCode;
}

}  // namespace Tool
