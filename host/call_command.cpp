#include "host/call_command.h"

#include <windows.h>

#include <cstdio>
#include <iostream>

#include "host/call_line.h"
#include "host/item_text.h"
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

void PrintCall(const json& call)
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

}  // namespace

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
                    PrintCall(report);
            }
            document["handles"] = session.HandleCount();
            session.ReleaseHandles();
        }
    }
    return FinishRun(module, host, document, failure, command.asJson, exitCode);
}

int FinishRun(CHandlerModule& module, CReferenceHost& host, json& document, const std::string& failure, bool asJson,
              int exitCode)
{
    host.FreeReleasedHandlers(module.FreeHandlerObject);
    document["handlersInUse"] = host.Registrations().size();
    document["failure"] = failure;
    if (asJson)
        std::printf("%s\n", document.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    if (!failure.empty())
        std::fprintf(stderr, "comtool: %s\n", failure.c_str());
    return exitCode;
}

}  // namespace Tool
