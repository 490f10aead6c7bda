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

Param Retyped(Param item, const wchar_t* signature)
{
    item->GetTypeDesc().signature = CMetaString(signature);
    return item;
}

class HostileTextTest : public CallTest {};

// Identity texts, and monikers and running objects with them.
TEST_F(HostileTextTest, IdentitiesMonikersAndRunningObjects)
{
    struct Row {
        const char* label;
        std::string text;
        MetaStatus status;
        const wchar_t* moniker;  // with useRunning, the open parameters; neither: none
        bool useRunning;
    };
    const std::wstring longMoniker(1000, L'm');
    const Row rows[] = {
        {"empty", "", MetaStatusBadIdentity, nullptr, false},
        {"no \"://\"", FixtureValues::kProgIdNarrow, MetaStatusBadIdentity, nullptr, false},
        {"scheme only", "COM://", MetaStatusBadIdentity, nullptr, false},
        {"no scheme", std::string("://") + FixtureValues::kProgIdNarrow, MetaStatusBadIdentity, nullptr, false},
        {"10,000 characters", "COM://" + std::string(10000, 'x'), MetaStatusNoObject, nullptr, false},
        {"10,000 characters of attributes", kFixture + "?" + std::string(10000, '?'), MetaStatusOk, nullptr, false},
        {"opening brace only", "COM://{" + kClassIdName, MetaStatusNoObject, nullptr, false},
        {"closing brace only", "COM://" + kClassIdName + "}", MetaStatusNoObject, nullptr, false},
        {"doubled braces", "COM://{{" + kClassIdName + "}}", MetaStatusNoObject, nullptr, false},
        {"braces around a program identifier", std::string("COM://{") + FixtureValues::kProgIdNarrow + "}",
         MetaStatusNoObject, nullptr, false},
        {"cut by the NUL inside it", kFixture + std::string("\0COM://nothing", 14), MetaStatusOk, nullptr, false},
        {"a NUL in the middle of the name", std::string("COM://ComHandler\0Test.CallFixture", 33),
         MetaStatusNoObject, nullptr, false},
        {"attributes repeated and empty", kFixture + "?Host=?Host=?TypeLib=?=x?flag???Username=?Password=",
         MetaStatusOk, nullptr, false},
        {"attribute names of white space", kFixture + "? =a?\t=b", MetaStatusOk, nullptr, false},
        {"\"://\" inside an attribute", kFixture + "?TypeLib=COM://x", MetaStatusOk, nullptr, false},
        {"a second scheme", "COM://COM://" + std::string(FixtureValues::kProgIdNarrow), MetaStatusNoObject, nullptr, false},
        // Nearly class identifiers: 36 characters without a dot are taken as one.
        {"the class identifier", "COM://" + kClassIdName, MetaStatusOk, nullptr, false},
        {"in small letters", "COM://5b7e2c40-8d31-4f6a-b0c9-3e1d7a2f6c20", MetaStatusOk, nullptr, false},
        {"a letter that is no hex digit", "COM://5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C2G", MetaStatusNoObject, nullptr, false},
        {"all zeros", "COM://00000000-0000-0000-0000-000000000000", MetaStatusNoObject, nullptr, false},
        {"a lone \"!\"", kFixture, MetaStatusNoObject, L"!", false},
        {"a chain of \"!\"", kFixture, MetaStatusNoObject, L"!!!", false},
        {"items of nothing", kFixture, MetaStatusNoObject, L"x!y!z", false},
        {"a prefix alone", kFixture, MetaStatusNoObject, L"clsid:", false},
        {"a class moniker of no class", kFixture, MetaStatusNoObject, L"clsid:00000000-0000-0000-0000-000000000000", false},
        {"colons", kFixture, MetaStatusNoObject, L"::::", false},
        {"1,000 characters", kFixture, MetaStatusNoObject, longMoniker.c_str(), false},
        {"a file name that doesn't exist", kFixture, MetaStatusNoObject, L"C:\\nothing\\here.xyz", false},
        {"the moniker wins over the running object", kFixture, MetaStatusNoObject, L"!", true},
        {"an incomplete identity with a moniker", "COM://", MetaStatusBadIdentity, L"!", false},
        {"a running object of a class not running", kFixture, MetaStatusNoObject, L"", true},
        {"a running object of no class", "COM://" + std::string(200, 'r'), MetaStatusBadIdentity, L"", true},
    };
    const long before = server.LiveObjects();
    RunInitialised([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            CObjectOpenParams params;
            params.moniker = CMetaString(row.moniker ? row.moniker : L"");
            params.useRunningObject = row.useRunning ? 1 : 0;
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            const MetaStatus status = handler->Open(row.text.c_str(), row.moniker ? &params : nullptr);
            EXPECT_EQ(status, row.status);
            EXPECT_EQ(handler->IsOpen(), status == MetaStatusOk);
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            host.FreeReleasedHandlers(module->FreeHandlerObject);
        }
        EXPECT_TRUE(host.Registrations().empty());
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
        {"10,000 characters", std::wstring(10000, L'T'), MetaStatusBadType},
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
    std::wstring pointers = L"VT_I4";
    for (int at = 0; at < 12; ++at)
        pointers += L"|VT_PTR";
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
        {"a bool for VT_R8", L"Invoke:EchoR8", [] { return Retyped(Bool(1), L"VT_R8"); }, MetaStatusInvokeFailed,
         false},
        {"a number for VT_DISPATCH", L"Invoke:EchoDispatch", [] { return Int(5, L"VT_DISPATCH"); },
         MetaStatusInvokeFailed, false},
        {"a struct for VT_BSTR", L"Invoke:EchoBstr", [] { return Retyped(Point(1, 2), L"VT_BSTR"); },
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
