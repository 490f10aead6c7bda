// Hostile input from scripts and from servers that break the rules.

#include <gtest/gtest.h>

#include <cwchar>
#include <functional>
#include <string>
#include <vector>

#include "contract/open_params.h"
#include "tests/module/call_harness.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/hostile_fixture_values.h"

using namespace MetaObj;
using namespace HostileValues;

namespace {

const std::string kFixture = std::string("COM://") + FixtureValues::kProgIdNarrow;
const std::string kHostile = std::string("COM://") + HostileValues::kProgIdNarrow;
const std::string kClassIdName = std::string(FixtureValues::kClassId).substr(1, 36);

class HostileTest : public CallTest {
protected:
    void WithHostile(const std::function<void(CMetaObjectCOMHandler&)>& body) { WithObject(kHostile, body); }
};

// Identity texts, and monikers and running objects with them.
TEST_F(HostileTest, IdentitiesMonikersAndRunningObjects)
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
        {"10,000 characters", "COM://" + std::string(10000, 'x'), MetaStatusNoObject, nullptr, false},
        {"10,000 characters of attributes", kFixture + "?" + std::string(10000, '?'), MetaStatusOk, nullptr, false},
        {"doubled braces", "COM://{{" + kClassIdName + "}}", MetaStatusNoObject, nullptr, false},
        {"cut by the NUL inside it", kFixture + std::string("\0COM://nothing", 14), MetaStatusOk, nullptr, false},
        {"a second scheme", "COM://COM://" + std::string(FixtureValues::kProgIdNarrow), MetaStatusNoObject, nullptr, false},
        {"in small letters", "COM://5b7e2c40-8d31-4f6a-b0c9-3e1d7a2f6c20", MetaStatusOk, nullptr, false},
        {"a letter that is no hex digit", "COM://5B7E2C40-8D31-4F6A-B0C9-3E1D7A2F6C2G", MetaStatusNoObject, nullptr, false},
        {"a chain of \"!\"", kFixture, MetaStatusNoObject, L"!!!", false},
        {"a class moniker of no class", kFixture, MetaStatusNoObject, L"clsid:00000000-0000-0000-0000-000000000000", false},
        {"1,000 characters", kFixture, MetaStatusNoObject, longMoniker.c_str(), false},
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

// <@VARPARAM> tags in their three forms, and ones the host's field can't hold.
TEST_F(HostileTest, VarParamTags)
{
    const std::wstring longName(200, L'v');
    const struct {
        std::wstring tag;
        bool parsed;
        std::wstring name, scope;
    } rows[] = {
        {L"<@VARPARAM NAME=\"nm\" SCOPE=\"sc\">", true, L"nm", L"sc"},
        {L"<@VARPARAM SCOPE='sc' NAME='nm'>", true, L"nm", L"sc"},
        {L"<@VARPARAM NAME=nm SCOPE=sc>", true, L"nm", L"sc"},
        {L"<@VARPARAM XNAME=b>", true, L"b", L"before"},
        {L"<@VARPARAM NAME=\"" + longName + L"\">", false, L"before", L"before"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(Narrow(CMetaString(row.tag.c_str())));
        CMetaObjectString item;
        item.SetTagText(CMetaString(row.tag.c_str()));
        CMetaString name(L"before"), scope(L"before");
        EXPECT_EQ(item.ParseVarParam(name, scope), row.parsed);
        EXPECT_EQ(Narrow(name), Narrow(CMetaString(row.name.c_str())));
        EXPECT_EQ(Narrow(scope), Narrow(CMetaString(row.scope.c_str())));
    }
}

// Only a whole "<@NULLOBJECT>" tag sends VT_NULL out; a cut one sends the value.
TEST_F(HostileTest, CutTagTextsTravelWithTheirItems)
{
    const std::wstring tag = L"<@NULLOBJECT>";
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (std::size_t cut = 0; cut <= tag.size(); ++cut) {
            SCOPED_TRACE(cut);
            Param value = Int(5);
            value->SetTagText(CMetaString(tag.substr(0, cut).c_str()));
            const Outcome outcome = Call(handler, L"Invoke:EchoVariant", {value.get()});
            EXPECT_EQ(outcome.status, MetaStatusOk);
            EXPECT_EQ(dynamic_cast<CMetaObjectUnknown*>(outcome.result.get()) != nullptr, cut == tag.size());
        }
    });
}

// A key naming no member leaves the record alone; an untranslatable item never reaches Invoke.
TEST_F(HostileTest, KeysAndItemsThatDontFit)
{
    struct Row {
        const char* label;
        std::wstring key;
        std::function<Param()> make;
        MetaStatus status;
        std::uint32_t code;
        bool invoked;  // the fixture's Invoke ran; checked for the rows with an item
    };
    const std::wstring longSignature = L"VT_I4" + std::wstring(60, L' ');
    std::wstring pointers = L"VT_I4";
    for (int at = 0; at < 12; ++at)
        pointers += L"|VT_PTR";
    const Row rows[] = {
        {"empty", L"", nullptr, MetaStatusInvokeFailed, kUntouchedCode, false},
        {"1,000 characters", L"Get:" + std::wstring(996, L'n'), nullptr, MetaStatusInvokeFailed, kUntouchedCode, false},
        {"the prefix in small letters", L"get:number", nullptr, MetaStatusOk, 1, false},
        {"an unknown prefix", L"Fetch:Number", nullptr, MetaStatusInvokeFailed, 65535, false},
        {"a signature of 65 characters", L"Invoke:EchoI4", [&] { return Int(1, longSignature.c_str()); },
         MetaStatusInvokeFailed, kUntouchedCode, false},
        {"a name of 60 letters", L"Invoke:EchoI4", [] { return Int(1, (L"VT_" + std::wstring(57, L'Q')).c_str()); },
         MetaStatusInvokeFailed, kUntouchedCode, false},
        {"twelve pointer marks, by reference", L"Invoke:RefI4",
         [&] { return ByRef(Int(1, pointers.c_str()), kInOut); }, MetaStatusOk, 1, true},
        {"a text for VT_I4", L"Invoke:EchoI4", [] { return Text(L"5", L"VT_I4"); }, MetaStatusInvokeFailed, kUntouchedCode, false},
        {"a number for VT_DISPATCH", L"Invoke:EchoDispatch", [] { return Int(5, L"VT_DISPATCH"); },
         MetaStatusInvokeFailed, kUntouchedCode, false},
        {"a text as enumeration with values", L"Invoke:EchoColour",
         [] {
             Param text = Text(L"1", L"VT_BYREF");
             Param colour = Colour(1);
             text->GetTypeDesc().Assign(colour->GetTypeDesc());
             return text;
         },
         MetaStatusInvokeFailed, 65535, false},
    };
    WithFixture([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const Param param = row.make ? row.make() : nullptr;
            const std::string before = LastCall(handler);
            const Outcome outcome =
                param ? Call(handler, row.key.c_str(), {param.get()}) : Call(handler, row.key.c_str());
            EXPECT_EQ(outcome.status, row.status);
            EXPECT_EQ(outcome.record.code, row.code);
            if (row.make) {
                EXPECT_EQ(LastCall(handler) != before, row.invoked);
            }
            if (row.status != MetaStatusOk) {
                EXPECT_EQ(outcome.result, nullptr);
            }
            if (row.code == kUntouchedCode) {
                EXPECT_EQ(Narrow(outcome.record.source), kUntouchedText);
            }
        }
    });
}

using Bounds = std::vector<std::pair<std::int32_t, std::int32_t>>;

// An array of VT_I4 with the given bounds, element i holding i when a block was made.
Param IntArray(const Bounds& bounds, std::int32_t direction = kIn)
{
    auto* array = new CMetaObjectArray;
    array->SetValue(CMetaString(L"VT_I4|VT_ARRAY"));
    CTypeDesc type;
    type.type = MetaTypeInt;
    type.signature = CMetaString(L"VT_I4|VT_ARRAY");
    type.EnsureBounds();
    for (const auto& bound : bounds)
        type.bounds->Add(bound.first, bound.second);
    array->InitElements(type);
    for (std::int32_t at = 0; array->elements && at < array->elementCount; ++at)
        array->elements[at] = Int(at).release();
    array->SetDirection(direction);
    return Param(array);
}

// What a result item is, in a word; a text by its length.
std::string Kind(const CMetaObjectItem* item)
{
    if (item == nullptr)
        return "none";
    if (const auto* text = dynamic_cast<const CMetaObjectString*>(item))
        return "text " + std::to_string(text->value.IsEmpty() ? 0 : std::wcslen(text->value.GetWide()));
    if (dynamic_cast<const CMetaObjectUnknown*>(item))
        return "unknown";
    if (ObjectOf(item))
        return "object";
    return dynamic_cast<const CMetaObjectArray*>(item) ? "array" : "other";
}

// 0xdeadbeef left in out cells by a failing server is never freed nor read.
TEST_F(HostileTest, GarbageInOutCellsOnFailure)
{
    struct Row {
        const char* label;
        const wchar_t* key;
        std::int32_t freeFirst;
        std::function<Param(CMetaObjectCOMHandler&)> cell;
        ULONG lostReferences;
    };
    const auto text = [](const wchar_t* signature) {
        return [signature](CMetaObjectCOMHandler&) { return ByRef(Text(L"went in", signature), kInOut); };
    };
    const auto object = [this](CMetaObjectCOMHandler& handler) {
        const Outcome child = Call(handler, L"Invoke:MakeChild");
        return ByRef(ObjectItem(ObjectOf(child.result.get())), kInOut);
    };
    const auto array = [](CMetaObjectCOMHandler&) { return IntArray({{0, 3}}, kInOut); };
    const Row rows[] = {
        {"BSTR cell, freed and replaced by a valid text", L"Invoke:GarbageText", 2, text(L"VT_BSTR"), 0},
        {"VARIANT cell, cleared first", L"Invoke:GarbageVariant", 1, text(L"VT_VARIANT"), 0},
        {"object cell", L"Invoke:GarbageObject", 0, object, 1},
        {"object cell, released first", L"Invoke:GarbageObject", 1, object, 0},
        {"array cell, destroyed first", L"Invoke:GarbageArray", 1, array, 0},
    };
    WithHostile([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const Param freeFirst = Int(row.freeFirst);
            const Param cell = row.cell(handler);
            IDispatch* const objectBefore = ObjectOf(cell.get());
            const ULONG referencesBefore = objectBefore ? RefCount(objectBefore) : 0;
            const Outcome outcome = Call(handler, row.key, {freeFirst.get(), cell.get()});
            if (objectBefore) {
                EXPECT_EQ(RefCount(objectBefore), referencesBefore + row.lostReferences);
                for (ULONG lost = 0; lost < row.lostReferences; ++lost)
                    objectBefore->Release();
            }
            EXPECT_EQ(outcome.status, MetaStatusInvokeFailed);
            EXPECT_EQ(outcome.record.code, 65535u);
            EXPECT_EQ(outcome.result, nullptr);
            if (auto* kept = dynamic_cast<CMetaObjectString*>(cell.get())) {
                EXPECT_EQ(Narrow(kept->value), "went in");
            }
            EXPECT_EQ(ObjectOf(cell.get()), objectBefore);
        }
        // Out cells: a valid BSTR and garbage in the object; the object item stays empty.
        const Param textOut = ByRef(Text(L"", L"VT_BSTR"), kOut);
        const Param objectOut = ByRef(ObjectItem(nullptr), kOut);
        EXPECT_EQ(Call(handler, L"Invoke:GarbageOut", {textOut.get(), objectOut.get()}).status,
                  MetaStatusInvokeFailed);
        EXPECT_EQ(ObjectOf(objectOut.get()), nullptr);
    });
}

// Every vt a result may have: a by-reference value is never followed.
TEST_F(HostileTest, ResultsOfEveryType)
{
    std::vector<std::int32_t> types{kNullByRef, kSelfByRef};
    for (std::int32_t vt = VT_EMPTY; vt <= VT_CLSID; ++vt) {
        for (std::int32_t extra : {0, +VT_BYREF, +VT_ARRAY, VT_BYREF | VT_ARRAY})
            types.push_back(vt | extra);
    }
    for (std::int32_t odd : {VT_VECTOR | VT_I4, VT_RESERVED | VT_I4, +VT_ILLEGALMASKED, +VT_ILLEGAL, +VT_BSTR_BLOB})
        types.push_back(odd);
    WithHostile([&](CMetaObjectCOMHandler& handler) {
        for (std::int32_t vt : types) {
            SCOPED_TRACE("vt " + std::to_string(vt));
            const Param asked = Int(vt);
            const Outcome outcome = Call(handler, L"Invoke:GiveType", {asked.get()});
            ASSERT_EQ(outcome.status, MetaStatusOk);
            const bool byRef = vt < 0 || (vt & ~VT_TYPEMASK) == VT_BYREF;
            if (vt == VT_EMPTY || vt == VT_VOID) {
                EXPECT_EQ(outcome.result, nullptr);
            } else if (byRef) {
                EXPECT_EQ(Kind(outcome.result.get()), "unknown");
            } else if (vt == VT_DISPATCH || vt == VT_UNKNOWN) {
                EXPECT_NE(ObjectOf(outcome.result.get()), nullptr);
            }
        }
    });
}

// Arrays, texts and structs of odd shapes both ways.
TEST_F(HostileTest, OddShapesEitherWay)
{
    struct Row {
        const char* label;
        const wchar_t* key;
        std::function<Param()> argument;
        MetaStatus status;
        std::string result;
    };
    const auto number = [](std::int32_t value) { return [value] { return Int(value); }; };
    const auto array = [](Bounds bounds) { return [bounds] { return IntArray(bounds); }; };
    const auto point = [](const wchar_t* name) {
        return [name] {
            Param item = Point(1, 2);
            item->GetTypeDesc().SetStructName(CMetaString(name));
            return item;
        };
    };
    const Row rows[] = {
        {"no dimensions", L"Invoke:GiveArray", number(kNoDimensions), MetaStatusOk, "none"},
        {"65,535 dimensions", L"Invoke:GiveArray", number(kManyDimensions), MetaStatusOk, "none"},
        {"2^32 elements over 16 bytes", L"Invoke:GiveArray", number(kOverflowingCount), MetaStatusOk, "none"},
        {"2^31 elements over 16 bytes", L"Invoke:GiveArray", number(kNegativeCount), MetaStatusOk, "none"},
        {"a null array", L"Invoke:GiveArray", number(kNullArray), MetaStatusOk, "none"},
        {"an element that refers to itself", L"Invoke:GiveArray", number(kVariantHoldsItself), MetaStatusOk,
         "array"},
        {"no bounds", L"Invoke:Swallow", array({}), MetaStatusInvokeFailed, "none"},
        {"65,536 dimensions", L"Invoke:Swallow", array(Bounds(65536, {0, 1})), MetaStatusInvokeFailed, "none"},
        {"101 dimensions", L"Invoke:Swallow", array(Bounds(101, {0, 1})), MetaStatusInvokeFailed, "none"},
        {"a count left open, as a type library gives it", L"Invoke:Swallow", array({{0, -1}}),
         MetaStatusInvokeFailed, "none"},
        {"2^32 elements", L"Invoke:Swallow", array({{0, 65536}, {0, 65536}}), MetaStatusInvokeFailed, "none"},
        {"a negative count", L"Invoke:Swallow", array({{0, -7}}), MetaStatusInvokeFailed, "none"},
        {"an empty dimension", L"Invoke:Swallow", array({{0, 0}}), MetaStatusOk, "other"},
        {"a struct of no name", L"Invoke:Swallow", point(L""), MetaStatusOk, "other"},
        {"a struct of a class's GUID", L"Invoke:Swallow", point(L"{9D4F1A60-2C7E-4B3A-8E51-6A0C2D9B4E20}"),
         MetaStatusOk, "other"},
        {"an embedded NUL ends the text", L"Invoke:GiveText", number(kEmbeddedNul), MetaStatusOk, "text 1"},
        {"an odd byte length", L"Invoke:GiveText", number(kOddBytes), MetaStatusOk, "text 2"},
        {"a null BSTR is empty", L"Invoke:GiveText", number(kNullText), MetaStatusOk, "text 0"},
        {"100,000 characters", L"Invoke:GiveText", number(kLongText), MetaStatusOk, "text 100000"},
        {"a valid result of a failing call", L"Invoke:FailWithResult", nullptr, MetaStatusInvokeFailed, "none"},
    };
    WithHostile([&](CMetaObjectCOMHandler& handler) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.label);
            const Param argument = row.argument ? row.argument() : nullptr;
            const Outcome outcome = argument ? Call(handler, row.key, {argument.get()}) : Call(handler, row.key);
            EXPECT_EQ(outcome.status, row.status);
            EXPECT_EQ(Kind(outcome.result.get()), row.result);
        }
    });
}

TEST_F(HostileTest, CxxExceptionsOutOfTheServer)
{
    WithHostile([&](CMetaObjectCOMHandler& handler) {
        const Param inInvoke = Int(kThrowInInvoke);
        const Outcome outcome = Call(handler, L"Invoke:Throw", {inInvoke.get()});
        EXPECT_EQ(outcome.status, MetaStatusInvokeFailed);
        EXPECT_EQ(outcome.record.code, kUntouchedCode);
        const struct {
            const char* label;
            const wchar_t* key;
            bool arm;
        } rows[] = {
            {"out of GetIDsOfNames", L"Invoke:ThrowOnLookUp", false},
            {"out of QueryInterface after a failed look-up", L"Invoke:NoSuchMember", true},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.label);
            if (row.arm) {
                const Param where = Int(kThrowInQueryInterface);
                ASSERT_EQ(Call(handler, L"Invoke:Throw", {where.get()}).status, MetaStatusOk);
            }
            CCOMMethodInvoke* slot = nullptr;
            EXPECT_EQ(handler.CreateMethodInvoke(&slot, CMetaString(row.key)), MetaStatusNoMemory);
            EXPECT_EQ(slot, nullptr);
            handler.FreeMethodInvoke(&slot);
        }
    });
}

// Statuses may vary with N; references may not.
TEST_F(HostileTest, EveryNthQueryInterfaceFails)
{
    WithHostile([&](CMetaObjectCOMHandler& control) {
        for (std::int32_t every = 1; every <= 4; ++every) {
            SCOPED_TRACE("every " + std::to_string(every));
            const Param everyItem = Int(every), none = Int(0);
            EXPECT_EQ(Call(control, L"Set:FailQueryEvery", {everyItem.get()}).status, MetaStatusOk);
            for (int round = 0; round < 3; ++round) {
                auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
                const MetaStatus opened = handler->Open(kHostile.c_str(), nullptr);
                EXPECT_TRUE(opened == MetaStatusOk || opened == MetaStatusNoObject) << opened;
                for (std::int32_t vt : {+VT_DISPATCH, +VT_UNKNOWN, VT_DISPATCH | VT_ARRAY}) {
                    if (opened != MetaStatusOk)
                        break;
                    const Param asked = Int(vt);
                    const Outcome outcome = Call(*handler, L"Invoke:GiveType", {asked.get()});
                    EXPECT_EQ(outcome.status == MetaStatusOk, outcome.record.code == 1);
                    const Outcome child = Call(*handler, L"Invoke:MakeChild");
                    EXPECT_EQ(child.status == MetaStatusOk, child.result != nullptr);
                }
                EXPECT_EQ(handler->Release(), MetaStatusClosed);
                host.FreeReleasedHandlers(module->FreeHandlerObject);
            }
            EXPECT_EQ(Call(control, L"Set:FailQueryEvery", {none.get()}).status, MetaStatusOk);
        }
    });
}

}  // namespace
