#include "host/tour_command.h"

#include <windows.h>

#include <cstdio>
#include <string>

#include "host/call_command.h"
#include "host/call_line.h"
#include "host/call_session.h"
#include "host/item_text.h"
#include "host/tool_text.h"
#include "host/walk_command.h"

namespace Tool {

using nlohmann::json;
using namespace MetaObj;

namespace {

constexpr const char* kIdentity = "COM://Scripting.Dictionary";

void Step(int number, const char* title, const char* why)
{
    std::printf("\n%d. %s\n   %s\n", number, title, why);
}

// Runs calls on the session's object, one line each: the call, then what came back.
bool Calls(CCallSession& session, std::initializer_list<const wchar_t*> texts)
{
    for (const wchar_t* text : texts) {
        CallLine line;
        std::string failure;
        json report;
        if (!ParseCallLine(text, line, failure) || session.Run(line, report, failure) != CCallSession::Outcome::Ok) {
            std::printf("   %s failed: %s\n", Utf8(text).c_str(), failure.c_str());
            return false;
        }
        std::printf("   > %-30s %s\n", Utf8(text).c_str(), ItemText(report["result"]).c_str());
    }
    return true;
}

// The Dictionary is itself a collection: walking it gives its keys.
bool WalkKeys(CMetaObjectHandler& dictionary, CCallSession& session)
{
    CEnumeratorSlot enumerator(dictionary);
    IEnumVARIANT** slot = enumerator.Slot();
    const MetaStatus opened = dictionary.OpenEnumerator(slot);
    if (opened != MetaStatusOk) {
        std::printf("   OpenEnumerator: %s\n", StatusText(opened).c_str());
        return false;
    }
    std::uint32_t count = 0;
    const MetaStatus counted = dictionary.CountElements(slot, &count);
    std::printf("   CountElements: %s, count %u\n", StatusText(counted).c_str(), static_cast<unsigned>(count));
    CItemList items;
    std::uint32_t fetched = 0;
    const MetaStatus next = dictionary.NextElements(slot, 16, items, &fetched);
    std::printf("   NextElements(16): %s, fetched %u\n", StatusText(next).c_str(), static_cast<unsigned>(fetched));
    for (CMetaObjectItem* item : items) {
        ModuleItem owned(item, ModuleItemDeleter{&dictionary});
        std::printf("     %s\n", ItemText(DescribeItem(item, session.Handles())).c_str());
    }
    return counted == MetaStatusOk && next == MetaStatusOk && fetched == count;
}

// The keys the catalogue lists, wrapped; describe shows each with its parameters.
bool Describe(CMetaObjectHandler& dictionary)
{
    CMethodNameList* keys = nullptr;
    if (dictionary.GetMethodNames(&keys) != MetaStatusOk || keys == nullptr) {
        std::printf("   no catalogue\n");
        return false;
    }
    std::printf("   %zu members:", keys->size());
    std::size_t column = 80;
    for (const CMetaString& key : *keys) {
        const std::string text = Utf8(key);
        if (column + text.size() > 76) {
            std::printf("\n    ");
            column = 4;
        }
        std::printf(" %s", text.c_str());
        column += text.size() + 1;
    }
    std::printf("\n   comtool describe %s shows their parameters and types.\n", kIdentity);
    dictionary.FreeMethodNameList(keys);
    return true;
}

bool Tour(CLiveObject& live)
{
    Step(1, "Create the object", "The module creates Scripting.Dictionary from its ProgID and reads its catalogue.");
    const MetaStatus opened = live.Open(kIdentity, OpenOptions());
    std::printf("   Open %s: %s\n", kIdentity, StatusText(opened).c_str());
    if (opened != MetaStatusOk)
        return false;
    const MetaStatus catalogue = live.LoadCatalogue();
    std::printf("   catalogue: %s\n", StatusText(catalogue).c_str());
    CCallSession session(live.Handler(), catalogue == MetaStatusOk);

    Step(2, "Call members by key",
         "A key is the kind of access and the member's name. Arguments are typed from the catalogue;\n"
         "   a Variant parameter takes text unless a prefix such as int: says otherwise.");
    bool ok = Calls(session, {L"Invoke:Add apple 3", L"Invoke:Add pear int:5", L"Invoke:Add plum \"ripe and red\"",
                              L"Get:Count", L"Get:Item apple", L"Get:Item pear"});

    Step(3, "Get an array", "Items returns a Variant array; it comes back as an array item with its bounds.");
    ok = Calls(session, {L"Invoke:Items"}) && ok;

    Step(4, "Walk the collection",
         "A Dictionary enumerates its keys: open an enumerator, count, fetch elements, close.");
    ok = WalkKeys(live.Handler(), session) && ok;

    Step(5, "Describe the object", "The catalogue lists every member a script can call, by its key.");
    ok = Describe(live.Handler()) && ok;
    session.ReleaseHandles();
    return ok;
}

}  // namespace

int RunTour(CHandlerModule& module, CReferenceHost& host)
{
    std::printf("A tour of the COM object handler on objects every machine has.\n");
    bool ok = false;
    {
        CLiveObject live(module, host);
        ok = Tour(live);
    }
    host.FreeReleasedHandlers(module.FreeHandlerObject);
    std::printf(ok ? "\nNext: comtool describe, call, walk and classes; comtool --help says more.\n"
                   : "\nA step of the tour failed: see above.\n");
    std::fflush(stdout);
    return ok ? 0 : 1;
}

}  // namespace Tool
