#include "host/walk_command.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>

#include "host/call_command.h"
#include "host/call_line.h"
#include "host/item_text.h"
#include "host/tool_text.h"

namespace Tool {

using nlohmann::json;
using namespace MetaObj;

namespace {

// Asked of NextElements at a time. A batch comes back short when elements of
// types that have no item were dropped, so only an empty batch ends the walk.
constexpr std::uint32_t kBatch = 32;

bool IsHandleName(const std::string& text)
{
    return text.size() > 1 && text[0] == '@' && text.find_first_not_of("0123456789", 1) == std::string::npos;
}

bool ParseAll(const std::vector<std::string>& texts, std::vector<CallLine>& lines, std::string& error)
{
    for (const std::string& text : texts) {
        CallLine line;
        if (!ParseCallLine(Widen(text, CP_ACP), line, error)) {
            error = text + ": " + error;
            return false;
        }
        lines.push_back(std::move(line));
    }
    return true;
}

void PrintRow(const std::string& label, const std::string& value)
{
    std::printf("%-18s %s\n", label.c_str(), value.c_str());
}

class CWalk {
public:
    CWalk(CHandlerModule& module, CReferenceHost& host, const WalkCommand& command)
        : module(module), host(host), command(command)
    {
    }

    int Run()
    {
        std::vector<CallLine> lines;
        std::vector<CallLine> eachLines;
        std::vector<std::string> texts = command.calls;
        std::string named;
        if (!texts.empty() && IsHandleName(texts.back())) {
            named = texts.back();
            texts.pop_back();
        }
        if (!ParseAll(texts, lines, failure) || !ParseAll(command.each, eachLines, failure))
            return Finish(kExitBadInput);
        for (const CallLine& line : eachLines) {
            if (!line.target.empty()) {
                failure = Utf8(line.text) + ": a call of --each goes to the element; it takes no handle";
                return Finish(kExitBadInput);
            }
        }

        int exitCode = 0;
        {
            CLiveObject live(module, host);
            exitCode = Walk(live, lines, named, eachLines);
        }
        return Finish(exitCode);
    }

private:
    int Walk(CLiveObject& live, std::vector<CallLine>& lines, const std::string& named,
             const std::vector<CallLine>& eachLines)
    {
        const MetaStatus openStatus = live.Open(command.identity, command.options);
        document["open"] = StatusOf(openStatus);
        if (openStatus != MetaStatusOk) {
            failure = "cannot open " + command.identity + ": status " + StatusText(openStatus);
            return kExitCallFailed;
        }
        const MetaStatus catalogueStatus = live.LoadCatalogue();
        document["catalogue"] = StatusOf(catalogueStatus);
        if (!command.asJson)
            PrintRow("identity:", command.identity);
        CCallSession session(live.Handler(), catalogueStatus == MetaStatusOk);
        const int exitCode = RunChain(session, lines) ? WalkCollection(session, live.Handler(), named, eachLines)
                                                      : kExitCallFailed;
        document["handles"] = session.HandleCount();
        session.ReleaseHandles();
        return exitCode;
    }

    bool RunChain(CCallSession& session, std::vector<CallLine>& lines)
    {
        std::wstring previous;
        for (CallLine& line : lines) {
            if (line.target.empty())
                line.target = previous;
            json report;
            const CCallSession::Outcome outcome = session.Run(line, report, failure);
            if (outcome == CCallSession::Outcome::BadInput) {
                badInput = true;
                return false;
            }
            document["calls"].push_back(report);
            if (outcome == CCallSession::Outcome::Failed)
                return false;
            if (!command.asJson)
                std::printf("> %s\n  %s\n", report["call"].get<std::string>().c_str(),
                            ItemText(report["result"]).c_str());
            const json& result = report["result"];
            previous = result.is_object() && result.value("handle", json()).is_string()
                           ? Widen(result["handle"].get<std::string>(), CP_UTF8)
                           : std::wstring();
        }
        last = previous;
        return true;
    }

    // The object a bare handle names, else the last call's object, else the opened one.
    CMetaObjectHandler* Collection(CCallSession& session, CMetaObjectHandler& opened, const std::string& named)
    {
        const std::wstring handle = named.empty() ? last : Widen(named, CP_ACP);
        document["collection"] = Utf8(handle);
        if (handle.empty())
            return &opened;
        CMetaObjectObject* held = session.Handles().Find(handle);
        if (!held) {
            failure = "there is no handle " + Utf8(handle);
            badInput = true;
            return nullptr;
        }
        return held->handler;
    }

    int WalkCollection(CCallSession& session, CMetaObjectHandler& opened, const std::string& named,
                       const std::vector<CallLine>& eachLines)
    {
        CMetaObjectHandler* collection = Collection(session, opened, named);
        if (!collection)
            return kExitBadInput;
        const std::string shownCollection = document["collection"].get<std::string>();
        CEnumeratorSlot enumerator(*collection);
        const MetaStatus openStatus = collection->OpenEnumerator(enumerator.Slot());
        document["enumerator"] = StatusOf(openStatus);
        if (openStatus != MetaStatusOk) {
            failure = (shownCollection.empty() ? command.identity : shownCollection) +
                      " is no collection: status " + StatusText(openStatus);
            return kExitCallFailed;
        }
        std::uint32_t count = 0;
        const MetaStatus countStatus = collection->CountElements(enumerator.Slot(), &count);
        document["count"] = countStatus == MetaStatusOk ? json(count) : json(nullptr);
        document["countStatus"] = StatusOf(countStatus);
        const MetaStatus skipStatus =
            command.skip > 0 ? collection->SkipElements(enumerator.Slot(), command.skip) : MetaStatusOk;
        if (command.skip > 0)
            document["skipStatus"] = StatusOf(skipStatus);
        if (!command.asJson) {
            PrintRow("collection:", shownCollection.empty() ? "the object" : shownCollection);
            PrintRow("count:", countStatus == MetaStatusOk ? std::to_string(count) : StatusText(countStatus));
            if (command.skip > 0 && skipStatus == MetaStatusOk)
                PrintRow("skipped:", std::to_string(command.skip));
        }
        // Where a failed skip left the enumerator is unknown, so the walk ends there.
        if (skipStatus != MetaStatusOk) {
            failure = "skipping " + std::to_string(command.skip) + " elements failed: status " + StatusText(skipStatus);
            return kExitCallFailed;
        }

        std::uint32_t index = command.skip;
        bool more = true;
        while (more && (command.max < 0 || index - command.skip < command.max)) {
            std::uint32_t asked = kBatch;
            if (command.max >= 0)
                asked = static_cast<std::uint32_t>(std::min<std::int64_t>(asked, command.max - (index - command.skip)));
            CItemList items;
            std::uint32_t fetched = 0;
            const MetaStatus status = collection->NextElements(enumerator.Slot(), asked, items, &fetched);
            std::vector<ModuleItem> owned;
            for (CMetaObjectItem* item : items)
                owned.emplace_back(item, ModuleItemDeleter{collection});
            for (ModuleItem& item : owned) {
                if (!Element(session, index++, item.get(), eachLines))
                    return kExitCallFailed;
            }
            if (status != MetaStatusOk) {
                failure = "the walk stopped after " + std::to_string(index - command.skip) + " elements: status " +
                          StatusText(status);
                document["walkStatus"] = StatusOf(status);
                return kExitCallFailed;
            }
            more = !owned.empty();
        }
        document["walkStatus"] = StatusOf(MetaStatusOk);
        document["reachedEnd"] = !more;
        return 0;
    }

    // One element: described, and the calls of --each run on it when it is an object.
    bool Element(CCallSession& session, std::uint32_t index, CMetaObjectItem* item,
                 const std::vector<CallLine>& eachLines)
    {
        json element = DescribeItem(item, session.Handles());
        element["index"] = index;
        json calls = json::array();
        bool ok = true;
        const json handle = element.value("handle", json());
        for (CallLine line : eachLines) {
            if (!handle.is_string())
                break;
            line.target = Widen(handle.get<std::string>(), CP_UTF8);
            json report;
            const CCallSession::Outcome outcome = session.Run(line, report, failure);
            if (outcome != CCallSession::Outcome::BadInput)
                calls.push_back(report);
            if (outcome != CCallSession::Outcome::Ok) {
                ok = false;
                break;
            }
        }
        if (!eachLines.empty())
            element["calls"] = calls;
        document["elements"].push_back(element);
        if (!command.asJson) {
            std::printf("[%u] %s\n", static_cast<unsigned>(index), ItemText(element).c_str());
            for (const json& call : calls)
                std::printf("    %s = %s\n", call["key"].get<std::string>().c_str(),
                            ItemText(call["result"]).c_str());
            std::fflush(stdout);
        }
        return ok;
    }

    int Finish(int exitCode)
    {
        if (badInput && exitCode != 0)
            exitCode = kExitBadInput;
        return FinishRun(module, host, document, failure, command.asJson, exitCode);
    }

    CHandlerModule& module;
    CReferenceHost& host;
    const WalkCommand& command;
    json document = {{"identity", command.identity}, {"calls", json::array()}, {"elements", json::array()}};
    std::string failure;
    std::wstring last;
    bool badInput = false;
};

}  // namespace

int RunWalkCommand(CHandlerModule& module, CReferenceHost& host, const WalkCommand& command)
{
    return CWalk(module, host, command).Run();
}

}  // namespace Tool
