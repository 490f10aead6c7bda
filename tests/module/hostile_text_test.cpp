// Hostile input a script can hand the module, through its exports as a host
// does: identity texts, monikers, method keys, tag texts, type words and
// signatures, items that don't fit their signature, and a host table with
// holes. Each row names its status; every scenario ends with the fixture's
// objects and the host's handlers back where they started.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "contract/open_params.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/hostile_fixture_values.h"

using namespace MetaObj;

namespace {

const std::string kFixture = std::string("COM://") + FixtureValues::kProgIdNarrow;
// The call fixture's class identifier without braces.
const std::string kClassIdName = std::string(FixtureValues::kClassId).substr(1, 36);

std::wstring Wide(const CMetaString& text)
{
    return text.IsEmpty() ? std::wstring() : std::wstring(text.GetWide());
}

class HostileTextTest : public CallTest {
protected:
    // Open on a new handler; the status, with the handler released and freed.
    MetaStatus OpenOnce(const char* identity, const CObjectOpenParams* params)
    {
        MetaStatus status = MetaStatusOk;
        auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
        status = handler->Open(identity, const_cast<CObjectOpenParams*>(params));
        EXPECT_EQ(handler->IsOpen(), status == MetaStatusOk);
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        return status;
    }
};

TEST_F(HostileTextTest, IdentityTexts)
{
    struct Row {
        const char* label;
        std::string text;
        MetaStatus status;
    };
    const Row rows[] = {
        {"empty", "", MetaStatusBadIdentity},
        {"no \"://\"", FixtureValues::kProgIdNarrow, MetaStatusBadIdentity},
        {"scheme only", "COM://", MetaStatusBadIdentity},
        {"no scheme", std::string("://") + FixtureValues::kProgIdNarrow, MetaStatusBadIdentity},
        {"10,000 characters", "COM://" + std::string(10000, 'x'), MetaStatusNoObject},
        {"10,000 characters of attributes", kFixture + "?" + std::string(10000, '?'), MetaStatusOk},
        {"opening brace only", "COM://{" + kClassIdName, MetaStatusNoObject},
        {"closing brace only", "COM://" + kClassIdName + "}", MetaStatusNoObject},
        {"doubled braces", "COM://{{" + kClassIdName + "}}", MetaStatusNoObject},
        {"braces around a program identifier", std::string("COM://{") + FixtureValues::kProgIdNarrow + "}",
         MetaStatusNoObject},
        {"cut by the NUL inside it", kFixture + std::string("\0COM://nothing", 14), MetaStatusOk},
        {"a NUL in the middle of the name", std::string("COM://ComHandler\0Test.CallFixture", 33),
         MetaStatusNoObject},
        {"attributes repeated and empty", kFixture + "?Host=?Host=?TypeLib=?=x?flag???Username=?Password=",
         MetaStatusOk},
        {"attribute names of white space", kFixture + "? =a?\t=b", MetaStatusOk},
        {"\"://\" inside an attribute", kFixture + "?TypeLib=COM://x", MetaStatusOk},
        {"a second scheme", "COM://COM://" + std::string(FixtureValues::kProgIdNarrow), MetaStatusNoObject},
        // Nearly class identifiers: 36 characters without a dot are taken as one.
        {"the class identifier", "COM://" + kClassIdName, MetaStatusOk},
        {"in small letters", "COM://5b7e2c40-8d31-4f6a-b0c9-3e1d7a2f6c20", MetaStatusOk},
        {"a letter that is no hex digit", "COM://5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C2G", MetaStatusNoObject},
        {"one character short", "COM://" + kClassIdName.substr(0, 35), MetaStatusNoObject},
        {"a dash moved", "COM://5B7E2C408-D31-4F6A-B0C9-3E1D7A2F6C20", MetaStatusNoObject},
        {"a dot, so a program identifier", "COM://5B7E2C40.8D31-4F6A-B0C9-3E1D7A2F6C20", MetaStatusNoObject},
        {"all zeros", "COM://00000000-0000-0000-0000-000000000000", MetaStatusNoObject},
        {"36 blanks", "COM://" + std::string(36, ' '), MetaStatusNoObject},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            EXPECT_EQ(OpenOnce(row.text.c_str(), nullptr), row.status);
        }
        EXPECT_TRUE(host.Registrations().empty());
    });
    EXPECT_EQ(server.LiveObjects(), before);
}

TEST_F(HostileTextTest, MonikersAndRunningObjects)
{
    struct Row {
        const char* label;
        std::string identity;
        std::wstring moniker;
        bool useRunningObject;
        MetaStatus status;
    };
    const Row rows[] = {
        {"a lone \"!\"", kFixture, L"!", false, MetaStatusNoObject},
        {"a chain of \"!\"", kFixture, L"!!!", false, MetaStatusNoObject},
        {"items of nothing", kFixture, L"x!y!z", false, MetaStatusNoObject},
        {"a prefix alone", kFixture, L"clsid:", false, MetaStatusNoObject},
        {"a class moniker of no class", kFixture, L"clsid:00000000-0000-0000-0000-000000000000", false,
         MetaStatusNoObject},
        {"colons", kFixture, L"::::", false, MetaStatusNoObject},
        {"1,000 characters", kFixture, std::wstring(1000, L'm'), false, MetaStatusNoObject},
        {"a file name that doesn't exist", kFixture, L"C:\\nothing\\here.xyz", false, MetaStatusNoObject},
        {"the moniker wins over the running object", kFixture, L"!", true, MetaStatusNoObject},
        {"an incomplete identity with a moniker", "COM://", L"!", false, MetaStatusBadIdentity},
        {"a running object of a class not running", kFixture, L"", true, MetaStatusNoObject},
        {"a running object of no class", "COM://" + std::string(200, 'r'), L"", true, MetaStatusBadIdentity},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            CObjectOpenParams params;
            params.moniker = CMetaString(row.moniker.c_str());
            params.useRunningObject = row.useRunningObject ? 1 : 0;
            EXPECT_EQ(OpenOnce(row.identity.c_str(), &params), row.status);
        }
    });
    EXPECT_EQ(server.LiveObjects(), before);
}

// A key that names no member makes a call object all the same; the call fails
// and leaves the record alone.
TEST_F(HostileTextTest, MethodKeys)
{
    struct Row {
        const char* label;
        std::wstring key;
        MetaStatus status;
        std::uint32_t code;
    };
    const Row rows[] = {
        {"empty", L"", MetaStatusInvokeFailed, kUntouchedCode},
        {"only a colon", L":", MetaStatusInvokeFailed, kUntouchedCode},
        {"two colons", L"::", MetaStatusInvokeFailed, kUntouchedCode},
        {"a prefix and no name", L"Get:", MetaStatusInvokeFailed, kUntouchedCode},
        {"no colon", L"GetNumber", MetaStatusInvokeFailed, kUntouchedCode},
        {"a second colon stays in the name", L"Get:Get:Number", MetaStatusInvokeFailed, kUntouchedCode},
        {"1,000 characters", L"Get:" + std::wstring(996, L'n'), MetaStatusInvokeFailed, kUntouchedCode},
        {"1,000 colons", std::wstring(1000, L':'), MetaStatusInvokeFailed, kUntouchedCode},
        {"blanks around the name", L"Get: Number ", MetaStatusInvokeFailed, kUntouchedCode},
        {"the prefix in small letters", L"get:number", MetaStatusOk, 1},
        // An unknown prefix calls as a method, and the property refuses that.
        {"an unknown prefix", L"Fetch:Number", MetaStatusInvokeFailed, 65535},
        {"an empty prefix", L":Number", MetaStatusInvokeFailed, 65535},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const Outcome outcome = Call(handler, row.key.c_str());
            EXPECT_EQ(outcome.status, row.status);
            EXPECT_EQ(outcome.record.code, row.code);
            if (row.status != MetaStatusOk) {
                EXPECT_EQ(outcome.result, nullptr);
                EXPECT_EQ(Narrow(outcome.record.source), kUntouchedText);
            }
        }
    });
}

TEST_F(HostileTextTest, LongKeysSplitAndJoinWhole)
{
    RunInitialised([&] {
        CMetaObjectHandler* handler = module->GetHandlerObject();
        const std::wstring name(1000, L'k');
        CMetaString key;
        MethodKind set = MethodKindSet;
        EXPECT_EQ(handler->MakeMethodName(key, CMetaString(name.c_str()), &set, 0, 0), 0u);
        EXPECT_EQ(Wide(key), L"Set:" + name);
        CMetaString split(L"kept");
        MethodKind kind = MethodKindGet;
        EXPECT_EQ(handler->SplitMethodName(CMetaString((L"setref:" + name).c_str()), split, kind, false), 0u);
        EXPECT_EQ(kind, MethodKindSetRef);
        EXPECT_EQ(Wide(split), name);
        EXPECT_EQ(handler->SplitMethodName(CMetaString(name.c_str()), split, kind, false), 0u);
        EXPECT_EQ(kind, MethodKindInvoke);
        EXPECT_EQ(Wide(split), name) << "a key without a colon leaves the name as it was";
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
}

// Every cut of a tag text: the name comes only once its value has an end, the
// scope only once its own has; a cut never reads past the text.
TEST_F(HostileTextTest, VarParamTagsCutAtEveryPosition)
{
    struct Form {
        const char* label;
        std::wstring tag;
        std::size_t nameEnd;   // the shortest cut that gives the name
        std::size_t scopeEnd;  // the shortest cut that gives the scope as well
    };
    const std::wstring quoted = L"<@VARPARAM NAME=\"nm\" SCOPE=\"sc\">";
    const std::wstring single = L"<@VARPARAM SCOPE='sc' NAME='nm'>";
    const std::wstring bare = L"<@VARPARAM NAME=nm SCOPE=sc>";
    const Form forms[] = {
        {"double quotes", quoted, quoted.find(L"\" S") + 1, quoted.rfind(L'"') + 1},
        {"single quotes, scope first", single, single.rfind(L'\'') + 1, single.rfind(L'\'') + 1},
        {"no quotes", bare, bare.find(L" S") + 1, bare.size()},
    };
    for (const Form& form : forms) {
        for (std::size_t cut = 0; cut <= form.tag.size(); ++cut) {
            SCOPED_TRACE(std::string(form.label) + ", cut at " + std::to_string(cut));
            CMetaObjectString item;
            item.SetTagText(CMetaString(form.tag.substr(0, cut).c_str()));
            CMetaString name(L"before");
            CMetaString scope(L"before");
            const bool parsed = item.ParseVarParam(name, scope);
            EXPECT_EQ(parsed, cut >= form.nameEnd);
            EXPECT_EQ(Wide(name), parsed ? L"nm" : L"before");
            EXPECT_EQ(Wide(scope), cut >= form.scopeEnd && parsed ? L"sc" : L"before");
        }
    }
}

TEST_F(HostileTextTest, VarParamTagsBeyondTheLimitAndMalformed)
{
    struct Row {
        const char* label;
        std::wstring tag;
        bool parsed;
        std::wstring name;
    };
    const std::wstring longName(200, L'v');
    const Row rows[] = {
        // The name would not fit the host's field: refused whole rather than cut.
        {"a name of 200 characters", L"<@VARPARAM NAME=\"" + longName + L"\">", false, L"before"},
        {"a name of 51 characters", L"<@VARPARAM NAME=\"" + longName.substr(0, 51) + L"\">", true,
         longName.substr(0, 51)},
        {"an empty name", L"<@VARPARAM NAME=\"\">", true, L""},
        {"a name at the very end", L"<@VARPARAM NAME=", false, L"before"},
        {"an opening quote at the very end", L"<@VARPARAM NAME=\"", false, L"before"},
        {"only the first 7 characters count", L"<@VARPAX NAME=a>", true, L"a"},
        {"six characters", L"<@VARP", false, L"before"},
        {"NAME= inside another word", L"<@VARPARAM XNAME=b>", true, L"b"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        CMetaObjectString item;
        item.SetTagText(CMetaString(row.tag.c_str()));
        CMetaString name(L"before");
        CMetaString scope(L"before");
        EXPECT_EQ(item.ParseVarParam(name, scope), row.parsed);
        EXPECT_EQ(Wide(name), row.name);
    }
}

// A tag text is stored and travels with its item; only "<@NULLOBJECT>" changes
// what goes out, and a cut one does not.
TEST_F(HostileTextTest, CutTagTextsTravelWithTheirItems)
{
    const std::wstring tag = L"<@NULLOBJECT>";
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (std::size_t cut = 0; cut <= tag.size(); ++cut) {
            SCOPED_TRACE(cut);
            Param value = Int(5);
            value->SetTagText(CMetaString(tag.substr(0, cut).c_str()));
            const Outcome outcome = Call(handler, L"Invoke:EchoVariant", {value.get()});
            EXPECT_EQ(outcome.status, MetaStatusOk);
            EXPECT_NE(outcome.result, nullptr);
            if (cut == tag.size()) {
                EXPECT_NE(dynamic_cast<CMetaObjectUnknown*>(outcome.result.get()), nullptr) << "VT_NULL came back";
            } else {
                EXPECT_NE(dynamic_cast<CMetaObjectInt*>(outcome.result.get()), nullptr) << "the value went out";
            }
        }
    });
}

TEST_F(HostileTextTest, TypeWordsOfEveryLength)
{
    struct Row {
        const char* label;
        std::wstring word;
        MetaStatus status;
    };
    const Row rows[] = {
        {"empty", L"", MetaStatusBadType},
        {"a known word and more", L"INT" + std::wstring(60, L'X'), MetaStatusBadType},
        {"60 characters", std::wstring(60, L'T'), MetaStatusBadType},
        {"10,000 characters", std::wstring(10000, L'T'), MetaStatusBadType},
        {"with a blank", L"INT ", MetaStatusBadType},
        {"a signature, not a word", L"VT_I4", MetaStatusBadType},
        {"the longest word, by reference", L"enumeration", MetaStatusOk},
    };
    RunInitialised([&] {
        CMetaObjectHandler* handler = module->GetHandlerObject();
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            CMetaString out(L"untouched");
            EXPECT_EQ(handler->GetTypeSignature(CMetaString(row.word.c_str()), out, true), row.status);
            if (row.status != MetaStatusOk) {
                EXPECT_EQ(Wide(out), L"untouched");
            }
        }
        EXPECT_EQ(handler->Release(), MetaStatusClosed);
        host.FreeReleasedHandlers(module->FreeHandlerObject);
    });
}

// Items whose signature is too long, unknown, or names another class than the
// item's: no translation, so Invoke never runs and the record stays.
TEST_F(HostileTextTest, ItemsThatDontFitTheirSignature)
{
    using Make = std::function<Param()>;
    struct Row {
        const char* label;
        const wchar_t* key;
        Make make;
        MetaStatus status;
        bool invoked;
    };
    const std::wstring longSignature = L"VT_I4" + std::wstring(60, L' ');
    const std::wstring pointers = L"VT_I4" + [] {
        std::wstring suffixes;
        for (int at = 0; at < 12; ++at)
            suffixes += L"|VT_PTR";
        return suffixes;
    }();
    const Row rows[] = {
        {"a signature of 65 characters", L"Invoke:EchoI4", [&] { return Int(1, longSignature.c_str()); },
         MetaStatusInvokeFailed, false},
        {"a name of 60 letters", L"Invoke:EchoI4", [] { return Int(1, (L"VT_" + std::wstring(57, L'Q')).c_str()); },
         MetaStatusInvokeFailed, false},
        {"twelve pointer marks, by reference", L"Invoke:RefI4",
         [&] { return ByRef(Int(1, pointers.c_str()), kInOut); }, MetaStatusOk, true},
        {"an empty signature", L"Invoke:EchoI4", [] { return Int(1, L""); }, MetaStatusInvokeFailed, false},
        {"a text for VT_I4", L"Invoke:EchoI4", [] { return Text(L"5", L"VT_I4"); }, MetaStatusInvokeFailed, false},
        {"a number for VT_BSTR", L"Invoke:EchoBstr", [] { return Int(5, L"VT_BSTR"); }, MetaStatusInvokeFailed,
         false},
        {"a real for VT_BOOL", L"Invoke:EchoBool", [] { return Real(1, L"VT_BOOL"); }, MetaStatusInvokeFailed,
         false},
        {"a bool for VT_R8", L"Invoke:EchoR8",
         [] {
             Param flag = Bool(1);
             flag->GetTypeDesc().signature = CMetaString(L"VT_R8");
             return flag;
         },
         MetaStatusInvokeFailed, false},
        {"a number for VT_DISPATCH", L"Invoke:EchoDispatch", [] { return Int(5, L"VT_DISPATCH"); },
         MetaStatusInvokeFailed, false},
        {"a struct for VT_BSTR", L"Invoke:EchoBstr",
         [] {
             Param point = Point(1, 2);
             point->GetTypeDesc().signature = CMetaString(L"VT_BSTR");
             return point;
         },
         MetaStatusInvokeFailed, false},
        {"a number as enumeration without values", L"Invoke:EchoColour",
         [] {
             Param number = Int(1, L"VT_BYREF");
             number->GetTypeDesc().type = MetaTypeEnum;
             return number;
         },
         MetaStatusInvokeFailed, false},
        {"a text as enumeration with values", L"Invoke:EchoColour",
         [] {
             Param text = Text(L"1", L"VT_BYREF");
             Param colour = Colour(1);
             text->GetTypeDesc().Assign(colour->GetTypeDesc());
             return text;
         },
         MetaStatusInvokeFailed, false},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const std::string before = LastCall(handler);
            const Param param = row.make();
            const Outcome outcome = Call(handler, row.key, {param.get()});
            EXPECT_EQ(outcome.status, row.status);
            EXPECT_EQ(LastCall(handler) != before, row.invoked);
        }
    });
}

// A table with a hole where the module looks: the load entries count as
// refusing, a missing access check allows, a missing registration is skipped.
TEST_F(HostileTextTest, HostTablesWithNullEntries)
{
    struct Row {
        const char* label;
        int word;  // -1: no table at all
        MetaStatus load;
        bool registered;
    };
    const Row rows[] = {
        {"no context", 0, MetaStatusNoTypeInfo, false},
        {"no BeginObjectLoad", 20, MetaStatusNoTypeInfo, true},
        {"no EndObjectLoad", 21, MetaStatusNoTypeInfo, true},
        {"no ReleaseObjectLoad", 22, MetaStatusNoTypeInfo, true},
        {"no AddMethodEntry", 23, MetaStatusNoTypeInfo, true},
        {"no ReservedEntry", 24, MetaStatusNoTypeInfo, true},
        {"no GetMethodTable", 25, MetaStatusNoTypeInfo, true},
        {"no RegisterHandler", 26, MetaStatusOk, false},
        {"no CheckObjectAccess", 27, MetaStatusOk, true},
        {"no table", -1, MetaStatusNoTypeInfo, false},
    };
    const long before = server.LiveObjects();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        CHandlerEnvironment table = *host.Table();
        if (row.word >= 0)
            reinterpret_cast<void**>(&table)[row.word] = nullptr;
        module->SetEnvironment(row.word >= 0 ? &table : nullptr);
        RunInitialised([&] {
            CMetaObjectHandler* handler = module->GetHandlerObject();
            EXPECT_EQ(host.Registrations().size(), row.registered ? 1u : 0u);
            EXPECT_EQ(handler->Open(kFixture.c_str(), nullptr), MetaStatusOk);
            EXPECT_EQ(handler->LoadObjectInfo(nullptr), row.load);
            const bool described = row.load == MetaStatusOk;
            EXPECT_EQ(handler->GetMethodCount() > 0, described);
            CMethodNameList* names = nullptr;
            EXPECT_EQ(handler->GetMethodNames(&names), described ? MetaStatusOk : MetaStatusNoTypeInfo);
            handler->FreeMethodNameList(names);
            EXPECT_EQ(handler->UnloadObjectInfo(), 0u);
            EXPECT_EQ(Call(*static_cast<CMetaObjectCOMHandler*>(handler), L"Get:Number").status, MetaStatusOk);
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            if (row.registered)
                host.FreeReleasedHandlers(module->FreeHandlerObject);
            else
                module->FreeHandlerObject(handler);
        });
        module->SetEnvironment(host.Table());
        EXPECT_TRUE(host.Registrations().empty());
    }
    EXPECT_EQ(server.LiveObjects(), before);
}

}  // namespace
