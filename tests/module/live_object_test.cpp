// Live objects through the module's exports, as a host drives them: opening by
// each road, and calls on platform objects that nobody here wrote.

#include <objbase.h>
#include <oleauto.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/reference_host.h"
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "plugin/com_handler.h"
#include "tests/module/module_fixture.h"
#include "tests/support/counting_dispatch.h"
#include "tests/support/import_patch.h"

using namespace MetaObj;

namespace {

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

class LiveObjectTest : public ModuleTest {
protected:
    // A handler of the host's, freed with the host's other handlers at the end.
    CMetaObjectHandler* NewHandler() { return module->GetHandlerObject(); }

    struct Outcome {
        MetaStatus status = MetaStatusOk;
        CMethodInvokeStatus record;
        CMetaObjectItem* result = nullptr;  // the module's; given back by Free
    };

    Outcome Call(CMetaObjectHandler& handler, const wchar_t* key, std::vector<CMetaObjectItem*> arguments = {})
    {
        Outcome outcome;
        CCOMMethodInvoke* slot = nullptr;
        EXPECT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusOk);
        CItemList list(arguments.begin(), arguments.end());
        handler.SetInvokeParams(&slot, list);
        outcome.status = handler.ExecuteInvoke(&slot, &outcome.record, &outcome.result);
        handler.FreeMethodInvoke(&slot);
        EXPECT_EQ(slot, nullptr);
        return outcome;
    }

    void Free(CMetaObjectHandler& handler, CMetaObjectItem* item)
    {
        if (!item)
            return;
        item->Clear();  // an object item gives back its use
        handler.FreeItem(item);
    }

    // The object a result holds, for calls of its own.
    static CMetaObjectHandler& HandlerOf(CMetaObjectItem* item)
    {
        auto* object = dynamic_cast<CMetaObjectObject*>(item);
        EXPECT_NE(object, nullptr);
        return *object->handler;
    }

    void Done(CMetaObjectHandler* handler)
    {
        handler->Release();
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        EXPECT_TRUE(host.Registrations().empty());
    }

    void RunLive(const std::function<void()>& body)
    {
        RunInitialised([&] {
            module->SetEnvironment(host.Table());
            body();
        });
    }

    CReferenceHost host;
};

std::unique_ptr<CMetaObjectString> TextArgument(const wchar_t* text, const wchar_t* signature = L"VT_BSTR")
{
    auto item = std::make_unique<CMetaObjectString>();
    item->value = CMetaString(text);
    item->GetTypeDesc().signature = CMetaString(signature);
    return item;
}

TEST_F(LiveObjectTest, OpeningFollowsTheRoadsInTheirOrder)
{
    struct Row {
        const char* name;
        const char* identity;
        const wchar_t* moniker;
        bool running;
        bool withParams;
        bool denyAll;
        MetaStatus expected;
    };
    const Row rows[] = {
        {"a refusing host comes first, even for a broken identity", "no delimiter", nullptr, false, false, true,
         MetaStatusDenied},
        {"no delimiter even with a moniker", "no delimiter", L"new:Scripting.Dictionary", false, true, false,
         MetaStatusBadIdentity},
        {"a moniker that doesn't parse", "COM://Scripting.Dictionary", L"::not a moniker::", false, true, false,
         MetaStatusNoObject},
        {"a running object that isn't there", "COM://Scripting.Dictionary", nullptr, true, true, false,
         MetaStatusNoObject},
        {"the class factory, without parameters", "COM://Scripting.Dictionary", nullptr, false, false, false,
         MetaStatusOk},
    };
    RunLive([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            row.denyAll ? host.Deny("") : host.AllowAll();
            CObjectOpenParams params;
            if (row.moniker)
                params.moniker = CMetaString(row.moniker);
            params.useRunningObject = row.running ? 1 : 0;
            CMetaObjectHandler* handler = NewHandler();
            EXPECT_EQ(handler->Open(row.identity, row.withParams ? &params : nullptr), row.expected);
            EXPECT_EQ(handler->IsOpen(), row.expected == MetaStatusOk);
            if (row.expected == MetaStatusOk) {
                EXPECT_EQ(handler->identity.GetText(), row.identity);
            }
            Done(handler);
        }
        host.AllowAll();
    });
}

// What reaches the platform's CoGetClassObject, copied while it is in reach.
struct ClassObjectRequest {
    int calls = 0;
    DWORD context = 0;
    bool serverInfo = false;
    std::wstring serverName, user, password, domain;
    DWORD authnService = 0, impersonation = 0, flags = 0;
};
ClassObjectRequest g_request;

HRESULT WINAPI RecordClassObjectRequest(REFCLSID, DWORD context, COSERVERINFO* server, REFIID, void** out)
{
    auto text = [](const void* units, ULONG length) {
        return units ? std::wstring(static_cast<const wchar_t*>(units), length) : std::wstring(L"-");
    };
    ++g_request.calls;
    g_request.context = context;
    g_request.serverInfo = server != nullptr;
    if (server && server->pwszName)
        g_request.serverName = server->pwszName;
    if (server && server->pAuthInfo) {
        g_request.authnService = server->pAuthInfo->dwAuthnSvc;
        g_request.impersonation = server->pAuthInfo->dwImpersonationLevel;
        const COAUTHIDENTITY* id = server->pAuthInfo->pAuthIdentityData;
        g_request.user = text(id->User, id->UserLength);
        g_request.password = text(id->Password, id->PasswordLength);
        g_request.domain = text(id->Domain, id->DomainLength);
        g_request.flags = id->Flags;
    }
    *out = nullptr;
    return CO_E_SERVER_EXEC_FAILURE;  // as a machine that can't be reached answers
}

TEST_F(LiveObjectTest, TheRemoteRequestReachesThePlatformsClassFactoryCall)
{
    RunLive([&] {
        ImportPatch patch(module->Handle(), "ole32.dll", "CoGetClassObject",
                          reinterpret_cast<void*>(&RecordClassObjectRequest));
        ASSERT_TRUE(patch.Applied());
        CObjectOpenParams params;
        params.domain = CMetaString(L"corp");
        for (bool dcom : {true, false}) {
            SCOPED_TRACE(dcom ? "DCOM on" : "DCOM off");
            g_request = ClassObjectRequest();
            auto* handler = static_cast<CMetaObjectCOMHandler*>(NewHandler());
            handler->dcomEnabled = dcom;
            EXPECT_EQ(handler->Open("COM://Scripting.Dictionary?Host=faraway?Username=ann?Password=pw", &params),
                      MetaStatusNoObject);
            EXPECT_EQ(g_request.calls, 1);
            if (dcom) {
                EXPECT_EQ(g_request.context, static_cast<DWORD>(CLSCTX_REMOTE_SERVER));
                EXPECT_TRUE(g_request.serverInfo);
                EXPECT_EQ(g_request.serverName, L"faraway");
                EXPECT_EQ(g_request.authnService, static_cast<DWORD>(RPC_C_AUTHN_WINNT));
                EXPECT_EQ(g_request.impersonation, static_cast<DWORD>(RPC_C_IMP_LEVEL_IMPERSONATE));
                EXPECT_EQ(g_request.user, L"ann");
                EXPECT_EQ(g_request.password, L"pw");
                EXPECT_EQ(g_request.domain, L"corp");
                EXPECT_EQ(g_request.flags, static_cast<DWORD>(SEC_WINNT_AUTH_IDENTITY_UNICODE));
            } else {
                EXPECT_EQ(g_request.context, 23u);
                EXPECT_FALSE(g_request.serverInfo);
            }
            Done(handler);
        }
    });
}

TEST_F(LiveObjectTest, DictionaryCallsAsAScriptMakesThem)
{
    RunLive([&] {
        CMetaObjectHandler* dictionary = NewHandler();
        ASSERT_EQ(dictionary->Open("COM://Scripting.Dictionary", nullptr), MetaStatusOk);
        const ULONG references = RefCount(dictionary->GetDispatchPointer());

        // CompareMode is an enumeration: a value outside it never reaches the object.
        CMetaObjectEnum mode(5);
        mode.GetTypeDesc().type = MetaTypeEnum;
        mode.GetTypeDesc().signature = CMetaString(L"VT_BYREF");
        mode.GetTypeDesc().EnsureEnumValues();
        for (std::int32_t value : {0, 1, 2})
            mode.GetTypeDesc().enumValues->Add(CMetaString(L"mode"), value);
        Outcome refused = Call(*dictionary, L"Set:CompareMode", {&mode});
        EXPECT_EQ(refused.status, MetaStatusInvokeFailed);
        EXPECT_EQ(refused.record.code, 65535u);
        EXPECT_EQ(Wide(refused.record.description), L"Illegal enum value");
        EXPECT_EQ(Wide(refused.record.source), L"Parameter Validation Error");
        mode.value = 1;
        EXPECT_EQ(Call(*dictionary, L"Set:CompareMode", {&mode}).status, MetaStatusOk);

        auto key = TextArgument(L"Apple", L"VT_VARIANT");
        auto value = TextArgument(L"red", L"VT_VARIANT");
        Outcome added = Call(*dictionary, L"Invoke:Add", {key.get(), value.get()});
        EXPECT_EQ(added.status, MetaStatusOk);
        EXPECT_EQ(added.record.code, 1u);
        EXPECT_EQ(Wide(added.record.description), L"COM Method call succeeded");
        EXPECT_EQ(added.result, nullptr);  // Add gives nothing back

        Outcome count = Call(*dictionary, L"Get:Count");
        ASSERT_EQ(count.status, MetaStatusOk);
        EXPECT_EQ(dynamic_cast<CMetaObjectInt&>(*count.result).value, 1);
        Free(*dictionary, count.result);

        // Text compare: the key is found whatever its case.
        auto lookup = TextArgument(L"APPLE", L"VT_VARIANT");
        Outcome item = Call(*dictionary, L"Get:Item", {lookup.get()});
        ASSERT_EQ(item.status, MetaStatusOk);
        EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*item.result).value), L"red");
        Free(*dictionary, item.result);

        Outcome exists = Call(*dictionary, L"Invoke:Exists", {lookup.get()});
        EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*exists.result).value, 1);
        Free(*dictionary, exists.result);

        // Two arguments of a property put: the key first, the value named.
        auto newValue = TextArgument(L"green", L"VT_VARIANT");
        EXPECT_EQ(Call(*dictionary, L"Set:Item", {key.get(), newValue.get()}).status, MetaStatusOk);
        item = Call(*dictionary, L"Get:Item", {key.get()});
        EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*item.result).value), L"green");
        Free(*dictionary, item.result);

        // A duplicate key: the object's own failure, with its texts where it gives any.
        Outcome duplicate = Call(*dictionary, L"Invoke:Add", {key.get(), value.get()});
        EXPECT_EQ(duplicate.status, MetaStatusInvokeFailed);
        EXPECT_EQ(duplicate.record.code, 65535u);

        // Nothing found by name: the record stays as the last call left it.
        for (const wchar_t* key : {L"Invoke:NoSuchMember", L"NoColon", L"Get:"}) {
            SCOPED_TRACE(std::string(key, key + wcslen(key)));
            CMethodInvokeStatus record;
            record.code = 77;
            CCOMMethodInvoke* slot = nullptr;
            ASSERT_EQ(dictionary->CreateMethodInvoke(&slot, CMetaString(key)), MetaStatusOk);
            EXPECT_EQ(dictionary->ExecuteInvoke(&slot, &record, nullptr), MetaStatusInvokeFailed);
            EXPECT_EQ(record.code, 77u);
            dictionary->FreeMethodInvoke(&slot);
        }
        // A wrong number of arguments is the object's to refuse.
        EXPECT_EQ(Call(*dictionary, L"Invoke:Exists").status, MetaStatusInvokeFailed);

        EXPECT_EQ(RefCount(dictionary->GetDispatchPointer()), references);
        Done(dictionary);
    });
}

TEST_F(LiveObjectTest, ReturnedObjectsAnswerCallsOfTheirOwn)
{
    RunLive([&] {
        CMetaObjectHandler* files = NewHandler();
        ASSERT_EQ(files->Open("COM://Scripting.FileSystemObject", nullptr), MetaStatusOk);
        auto path = TextArgument(L"C:\\windows\\win.ini");
        Outcome folder = Call(*files, L"Invoke:GetFile", {path.get()});
        ASSERT_EQ(folder.status, MetaStatusOk);
        CMetaObjectHandler& folderHandler = HandlerOf(folder.result);
        EXPECT_EQ(folder.result->GetNewObject(), 1);
        EXPECT_EQ(folderHandler.GetUseCount(), 1u);
        EXPECT_TRUE(folderHandler.identity.GetText().empty());

        Outcome name = Call(folderHandler, L"Get:Name");
        EXPECT_EQ(_wcsicmp(Wide(dynamic_cast<CMetaObjectString&>(*name.result).value).c_str(), L"win.ini"), 0);
        Free(folderHandler, name.result);
        Outcome created = Call(folderHandler, L"Get:DateLastModified");
        ASSERT_EQ(created.status, MetaStatusOk);
        auto& date = dynamic_cast<CMetaObjectDate&>(*created.result);
        EXPECT_FALSE(date.value.IsEmpty());
        EXPECT_EQ(Wide(date.value).find(L':'), std::wstring::npos);  // no time of day
        Free(folderHandler, created.result);

        IDispatch* folderObject = folderHandler.GetDispatchPointer();
        const ULONG withHandler = RefCount(folderObject);
        folderObject->AddRef();
        Free(*files, folder.result);  // the item's use was the last: the handler lets go
        EXPECT_EQ(RefCount(folderObject), withHandler);  // ours stands where the handler's was
        folderObject->Release();
        Done(files);
    });
}

TEST_F(LiveObjectTest, DocumentsByFactoryAndExpressionsByMoniker)
{
    RunLive([&] {
        CMetaObjectHandler* document = NewHandler();
        ASSERT_EQ(document->Open("COM://MSXML2.DOMDocument.6.0", nullptr), MetaStatusOk);
        auto xml = TextArgument(L"<order id='7'><line/></order>");
        Outcome loaded = Call(*document, L"Invoke:loadXML", {xml.get()});
        ASSERT_EQ(loaded.status, MetaStatusOk);
        EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*loaded.result).value, 1);
        Free(*document, loaded.result);
        Outcome root = Call(*document, L"Get:documentElement");
        ASSERT_EQ(root.status, MetaStatusOk);
        Outcome name = Call(HandlerOf(root.result), L"Get:nodeName");
        EXPECT_EQ(Wide(dynamic_cast<CMetaObjectString&>(*name.result).value), L"order");
        Free(*document, name.result);
        Free(*document, root.result);
        Done(document);

        CObjectOpenParams params;
        params.moniker = CMetaString(L"new:VBScript.RegExp");
        CMetaObjectHandler* expression = NewHandler();
        ASSERT_EQ(expression->Open("COM://VBScript.RegExp", &params), MetaStatusOk);
        auto pattern = TextArgument(L"b+c");
        EXPECT_EQ(Call(*expression, L"Set:Pattern", {pattern.get()}).status, MetaStatusOk);
        for (const auto& [subject, expected] : {std::pair{L"abbbc", 1}, std::pair{L"ac", 0}}) {
            auto text = TextArgument(subject);
            Outcome test = Call(*expression, L"Invoke:Test", {text.get()});
            EXPECT_EQ(dynamic_cast<CMetaObjectBool&>(*test.result).value, expected);
            Free(*expression, test.result);
        }
        Done(expression);
    });
}

TEST_F(LiveObjectTest, AScriptEnginesByReferenceArgumentsAreWrittenBack)
{
    RunLive([&] {
        CMetaObjectHandler* control = NewHandler();
        ASSERT_EQ(control->Open("COM://MSScriptControl.ScriptControl", nullptr), MetaStatusOk);
        auto language = TextArgument(L"VBScript");
        ASSERT_EQ(Call(*control, L"Set:Language", {language.get()}).status, MetaStatusOk);
        auto code = TextArgument(
            L"Class Doubler\n"
            L"  Public Sub Twice(ByRef n, ByRef note)\n"
            L"    n = n * 2\n"
            L"    note = \"doubled \" & note\n"
            L"  End Sub\n"
            L"  Public Function Stamp()\n"
            L"    Stamp = DateSerial(2024, 1, 2) + TimeSerial(13, 0, 0)\n"
            L"  End Function\n"
            L"End Class\n");
        ASSERT_EQ(Call(*control, L"Invoke:AddCode", {code.get()}).status, MetaStatusOk);
        auto expression = TextArgument(L"New Doubler");
        Outcome made = Call(*control, L"Invoke:Eval", {expression.get()});
        ASSERT_EQ(made.status, MetaStatusOk);
        CMetaObjectHandler& doubler = HandlerOf(made.result);

        auto number = TextArgument(L"21", L"VT_VARIANT|VT_BYREF");
        number->GetTypeDesc().isByRef = 1;
        number->SetDirection(2);
        auto note = TextArgument(L"once", L"VT_VARIANT|VT_BYREF");
        note->GetTypeDesc().isByRef = 1;
        note->SetDirection(2);
        Outcome twice = Call(doubler, L"Invoke:Twice", {number.get(), note.get()});
        ASSERT_EQ(twice.status, MetaStatusOk);
        EXPECT_EQ(Wide(number->value), L"42");
        EXPECT_EQ(Wide(note->value), L"doubled once");

        // A date result is shown by the system's locale, without its time of day.
        Outcome stamp = Call(doubler, L"Invoke:Stamp");
        ASSERT_EQ(stamp.status, MetaStatusOk);
        auto& date = dynamic_cast<CMetaObjectDate&>(*stamp.result);
        DATE back = 0;
        BSTR text = SysAllocString(date.value.GetWide());
        EXPECT_EQ(VarDateFromStr(text, LOCALE_SYSTEM_DEFAULT, 0, &back), S_OK);
        SysFreeString(text);
        EXPECT_DOUBLE_EQ(back, 45293.0);
        Free(doubler, stamp.result);

        Free(*control, made.result);
        Done(control);
    });
}

}  // namespace
