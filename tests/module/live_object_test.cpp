// Live objects through the module's exports, as a host drives them: the remote
// request as it reaches the platform, and calls on platform objects that
// nobody here wrote.

#include <objbase.h>
#include <oleauto.h>

#include <string>
#include <utility>

#include "tests/module/call_harness.h"
#include "tests/support/import_patch.h"

using namespace MetaObj;

namespace {

using LiveObjectTest = CallTest;

std::wstring TextOf(const Outcome& outcome)
{
    return ValueText(outcome.result.get());
}

// What reaches the platform's CoGetClassObject, written down while it is in reach.
std::wstring g_requests;

HRESULT WINAPI RecordClassObjectRequest(REFCLSID, DWORD context, COSERVERINFO* server, REFIID, void** out)
{
    auto text = [](const void* units, ULONG length) {
        return units ? std::wstring(static_cast<const wchar_t*>(units), length) : std::wstring(L"-");
    };
    g_requests += L"[context " + std::to_wstring(context);
    if (server) {
        g_requests += std::wstring(L" on ") + (server->pwszName ? server->pwszName : L"-");
        if (const COAUTHINFO* auth = server->pAuthInfo) {
            const COAUTHIDENTITY* id = auth->pAuthIdentityData;
            g_requests += L" authn " + std::to_wstring(auth->dwAuthnSvc) + L" level " +
                          std::to_wstring(auth->dwImpersonationLevel) + L" " + text(id->Domain, id->DomainLength) +
                          L"\\" + text(id->User, id->UserLength) + L":" + text(id->Password, id->PasswordLength) +
                          L" flags " + std::to_wstring(id->Flags);
        }
    }
    g_requests += L"]";
    *out = nullptr;
    return CO_E_SERVER_EXEC_FAILURE;  // as a machine that can't be reached answers
}

// Remote: Windows authentication, impersonation, Unicode identity texts.
TEST_F(LiveObjectTest, TheRemoteRequestReachesThePlatformsClassFactoryCall)
{
    RunInitialised([&] {
        ImportPatch patch(module->Handle(), "ole32.dll", "CoGetClassObject",
                          reinterpret_cast<void*>(&RecordClassObjectRequest));
        ASSERT_TRUE(patch.Applied());
        CObjectOpenParams params;
        params.domain = CMetaString(L"corp");
        for (const auto& [dcom, request] :
             {std::pair{true, L"[context 16 on faraway authn 10 level 3 corp\\ann:pw flags 2]"},
              std::pair{false, L"[context 23]"}}) {
            SCOPED_TRACE(dcom ? "DCOM on" : "DCOM off");
            g_requests.clear();
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            handler->dcomEnabled = dcom;
            EXPECT_EQ(handler->Open("COM://Scripting.Dictionary?Host=faraway?Username=ann?Password=pw", &params),
                      MetaStatusNoObject);
            EXPECT_EQ(g_requests, request);
            handler->Release();
        }
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
}

TEST_F(LiveObjectTest, DictionaryCallsAsAScriptMakesThem)
{
    WithObject("COM://Scripting.Dictionary", [&](CMetaObjectCOMHandler& dictionary) {
        const ULONG references = RefCount(dictionary.GetDispatchPointer());
        const Param mode = Int(1), key = Text(L"Apple", L"VT_VARIANT"), value = Text(L"red", L"VT_VARIANT");
        EXPECT_EQ(Call(dictionary, L"Set:CompareMode", {mode.get()}).status, MetaStatusOk);
        const Outcome added = Call(dictionary, L"Invoke:Add", {key.get(), value.get()});
        EXPECT_EQ(added.status, MetaStatusOk);
        EXPECT_EQ(added.result, nullptr);  // Add gives nothing back
        EXPECT_EQ(TextOf(Call(dictionary, L"Get:Count")), L"1");

        // Text compare: the key is found whatever its case.
        const Param lookup = Text(L"APPLE", L"VT_VARIANT");
        EXPECT_EQ(TextOf(Call(dictionary, L"Get:Item", {lookup.get()})), L"red");
        EXPECT_EQ(TextOf(Call(dictionary, L"Invoke:Exists", {lookup.get()})), L"true");

        // Two arguments of a property put: the key first, the value named.
        const Param newValue = Text(L"green", L"VT_VARIANT");
        EXPECT_EQ(Call(dictionary, L"Set:Item", {key.get(), newValue.get()}).status, MetaStatusOk);
        EXPECT_EQ(TextOf(Call(dictionary, L"Get:Item", {key.get()})), L"green");

        // A duplicate key, or a wrong number of arguments: the object's own failure.
        const Outcome duplicate = Call(dictionary, L"Invoke:Add", {key.get(), value.get()});
        EXPECT_EQ(duplicate.status, MetaStatusInvokeFailed);
        EXPECT_EQ(duplicate.record.code, 65535u);
        EXPECT_EQ(Call(dictionary, L"Invoke:Exists").status, MetaStatusInvokeFailed);
        EXPECT_EQ(RefCount(dictionary.GetDispatchPointer()), references);
    });
}

TEST_F(LiveObjectTest, ReturnedObjectsAnswerCallsOfTheirOwn)
{
    WithObject("COM://Scripting.FileSystemObject", [&](CMetaObjectCOMHandler& files) {
        const Param path = Text(L"C:\\windows\\win.ini");
        Outcome file = Call(files, L"Invoke:GetFile", {path.get()});
        ASSERT_EQ(file.status, MetaStatusOk);
        CMetaObjectCOMHandler& fileHandler = ItemHandler(file.result.get());
        EXPECT_EQ(file.result->GetNewObject(), 1);
        EXPECT_EQ(fileHandler.GetUseCount(), 1u);
        EXPECT_TRUE(fileHandler.identity.GetText().empty());
        EXPECT_EQ(_wcsicmp(TextOf(Call(fileHandler, L"Get:Name")).c_str(), L"win.ini"), 0);
        IDispatch* fileObject = fileHandler.GetDispatchPointer();
        const ULONG withHandler = RefCount(fileObject);
        fileObject->AddRef();
        file.result.reset();  // the item's use was the last: the handler lets go
        EXPECT_EQ(RefCount(fileObject), withHandler);  // ours stands where the handler's was
        fileObject->Release();
    });
}

TEST_F(LiveObjectTest, DocumentsByFactoryAndExpressionsByMoniker)
{
    WithObject("COM://MSXML2.DOMDocument.6.0", [&](CMetaObjectCOMHandler& document) {
        const Param xml = Text(L"<order id='7'><line/></order>");
        EXPECT_EQ(TextOf(Call(document, L"Invoke:loadXML", {xml.get()})), L"true");
        const Outcome root = Call(document, L"Get:documentElement");
        ASSERT_EQ(root.status, MetaStatusOk);
        EXPECT_EQ(TextOf(Call(ItemHandler(root.result.get()), L"Get:nodeName")), L"order");
    });

    CObjectOpenParams params;
    params.moniker = CMetaString(L"new:VBScript.RegExp");
    WithObject(
        "COM://VBScript.RegExp",
        [&](CMetaObjectCOMHandler& expression) {
            const Param pattern = Text(L"b+c");
            EXPECT_EQ(Call(expression, L"Set:Pattern", {pattern.get()}).status, MetaStatusOk);
            for (const auto& [subject, expected] : {std::pair{L"abbbc", L"true"}, std::pair{L"ac", L"false"}}) {
                const Param text = Text(subject);
                EXPECT_EQ(TextOf(Call(expression, L"Invoke:Test", {text.get()})), expected);
            }
        },
        &params);
}

TEST_F(LiveObjectTest, AScriptEnginesByReferenceArgumentsAreWrittenBack)
{
    WithScript(L"Class Doubler\n"
               L"  Public Sub Twice(ByRef n, ByRef note) : n = n * 2 : note = \"doubled \" & note : End Sub\n"
               L"  Public Function Stamp() : Stamp = DateSerial(2024, 1, 2) + TimeSerial(13, 0, 0) : End Function\n"
               L"End Class\n",
               [&](CMetaObjectCOMHandler& control) {
                   const Outcome made = Eval(control, L"New Doubler");
                   ASSERT_EQ(made.status, MetaStatusOk);
                   CMetaObjectCOMHandler& doubler = ItemHandler(made.result.get());
                   const Param number = ByRef(Text(L"21", L"VT_VARIANT"), kInOut),
                               note = ByRef(Text(L"once", L"VT_VARIANT"), kInOut);
                   ASSERT_EQ(Call(doubler, L"Invoke:Twice", {number.get(), note.get()}).status, MetaStatusOk);
                   EXPECT_EQ(Narrow(static_cast<CMetaObjectString&>(*number).value), "42");
                   EXPECT_EQ(Narrow(static_cast<CMetaObjectString&>(*note).value), "doubled once");

                   // A date result is shown by the system's locale, without its time of day.
                   const Outcome stamp = Call(doubler, L"Invoke:Stamp");
                   ASSERT_NE(dynamic_cast<const CMetaObjectDate*>(stamp.result.get()), nullptr);
                   DATE back = 0;
                   BSTR text = SysAllocString(TextOf(stamp).c_str());
                   EXPECT_EQ(VarDateFromStr(text, LOCALE_SYSTEM_DEFAULT, 0, &back), S_OK);
                   SysFreeString(text);
                   EXPECT_DOUBLE_EQ(back, 45293.0);
               });
}

}  // namespace
