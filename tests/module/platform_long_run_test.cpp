// Long runs on objects of the platform, which count nothing for us: rounds of
// calls, arrays and walks on Scripting.Dictionary, VBScript.RegExp and
// MSXML2.DOMDocument.6.0, and the process's private bytes must stop growing
// once the platform's caches are made.

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/module/stress_fixture.h"
#include "tests/support/process_figures.h"

using namespace MetaObj;

namespace {

constexpr int kRounds = 10;
constexpr int kPassesPerRound = 15;
// Wine's heap keeps freed blocks in its own lists and grows in steps; a leak
// of a few hundred bytes per call would still pass this within a few rounds.
constexpr SIZE_T kPrivateBytesDrift = 1024 * 1024;

class PlatformLongRunTest : public StressTest {
protected:
    CMetaObjectCOMHandler* OpenPlatform(const char* identity)
    {
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        EXPECT_EQ(handler->Open(identity, nullptr), MetaStatusOk) << identity;
        return handler;
    }

    void Close(CMetaObjectCOMHandler* handler)
    {
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    }

    // Walks every element by batches of three, freeing each batch; returns the count walked.
    std::uint32_t WalkAll(CMetaObjectCOMHandler& collection)
    {
        IEnumVARIANT* slot = nullptr;
        EXPECT_EQ(collection.OpenEnumerator(&slot), MetaStatusOk);
        std::uint32_t walked = 0;
        for (int guard = 0; guard < 1000; ++guard) {
            CItemList items;
            std::uint32_t fetched = 0;
            EXPECT_EQ(collection.NextElements(&slot, 3, items, &fetched), MetaStatusOk);
            for (CMetaObjectItem* item : items) {
                item->Clear();
                collection.FreeItem(item);
            }
            walked += fetched;
            if (fetched == 0)
                break;
        }
        EXPECT_EQ(collection.CloseEnumerator(&slot), MetaStatusOk);
        return walked;
    }

    static CMetaObjectCOMHandler& HandlerOf(const Outcome& outcome)
    {
        return static_cast<CMetaObjectCOMHandler&>(*dynamic_cast<const CMetaObjectObject&>(*outcome.result).handler);
    }

    // A dictionary filled, read as arrays, walked and emptied.
    void DictionaryPass(int pass)
    {
        CMetaObjectCOMHandler* dictionary = OpenPlatform("COM://Scripting.Dictionary");
        for (int at = 0; at < 8; ++at) {
            const std::wstring key = L"key" + std::to_wstring(pass * 8 + at);
            const Param keyItem = Text(key.c_str(), L"VT_VARIANT"), value = Int(at, L"VT_VARIANT");
            EXPECT_EQ(Call(*dictionary, L"Invoke:Add", {keyItem.get(), value.get()}).status, MetaStatusOk);
        }
        const Param probe = Text(L"key0", L"VT_VARIANT");
        EXPECT_EQ(Call(*dictionary, L"Invoke:Exists", {probe.get()}).status, MetaStatusOk);
        EXPECT_EQ(Call(*dictionary, L"Invoke:Items").status, MetaStatusOk);
        EXPECT_EQ(Call(*dictionary, L"Invoke:Keys").status, MetaStatusOk);
        EXPECT_EQ(WalkAll(*dictionary), 8u);
        EXPECT_EQ(Call(*dictionary, L"Invoke:RemoveAll").status, MetaStatusOk);
        Close(dictionary);
    }

    // A pattern run over a text, its matches walked and read.
    void RegExpPass()
    {
        CMetaObjectCOMHandler* expression = OpenPlatform("COM://VBScript.RegExp");
        RegExpCalls(*expression);
        Close(expression);
    }
    // The results go back through the handler that made them, before it closes.
    void RegExpCalls(CMetaObjectCOMHandler& expression)
    {
        const Param pattern = Text(L"[a-z]+(\\d)"), global = Bool(1);
        EXPECT_EQ(Call(expression, L"Set:Pattern", {pattern.get()}).status, MetaStatusOk);
        EXPECT_EQ(Call(expression, L"Set:Global", {global.get()}).status, MetaStatusOk);
        const Param subject = Text(L"ab1 cd2 ef3 gh4");
        const Outcome matches = Call(expression, L"Invoke:Execute", {subject.get()});
        ASSERT_EQ(matches.status, MetaStatusOk);
        EXPECT_EQ(WalkAll(HandlerOf(matches)), 4u);
        EXPECT_EQ(Call(HandlerOf(matches), L"Get:Count").status, MetaStatusOk);
    }

    // A document parsed, its nodes selected, walked and read.
    void DocumentPass()
    {
        CMetaObjectCOMHandler* document = OpenPlatform("COM://MSXML2.DOMDocument.6.0");
        DocumentCalls(*document);
        Close(document);
    }
    void DocumentCalls(CMetaObjectCOMHandler& document)
    {
        const Param xml = Text(L"<list><item n='1'>one</item><item n='2'>two</item><item n='3'/></list>");
        EXPECT_EQ(Call(document, L"Invoke:loadXML", {xml.get()}).status, MetaStatusOk);
        const Outcome root = Call(document, L"Get:documentElement");
        ASSERT_EQ(root.status, MetaStatusOk);
        EXPECT_EQ(Call(HandlerOf(root), L"Get:xml").status, MetaStatusOk);
        const Param query = Text(L"//item");
        const Outcome items = Call(document, L"Invoke:selectNodes", {query.get()});
        ASSERT_EQ(items.status, MetaStatusOk);
        EXPECT_EQ(Call(HandlerOf(items), L"Get:length").status, MetaStatusOk);
        WalkAll(HandlerOf(items));
    }
};

TEST_F(PlatformLongRunTest, PrivateBytesStopGrowing)
{
    RunInitialised([&] {
        SIZE_T settled = 0;
        for (int round = 1; round <= kRounds && !HasFailure(); ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            RunOnThread([&] {
                ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
                for (int pass = 0; pass < kPassesPerRound && !HasFatalFailure(); ++pass) {
                    DictionaryPass(pass);
                    RegExpPass();
                    DocumentPass();
                }
                host.ClearRecords();
                CoUninitialize();
            });
            EXPECT_TRUE(host.Registrations().empty()) << "handlers still in use";
            const SIZE_T bytes = PrivateBytes();
            std::printf("round %d: private bytes %zu\n", round, static_cast<std::size_t>(bytes));
            if (round <= 2) {
                settled = bytes;
                continue;
            }
            EXPECT_LE(bytes, settled + kPrivateBytesDrift);
        }
    });
}

}  // namespace
