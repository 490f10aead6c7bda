// Servers that break the rules, called through the module's exports as a host
// calls them: garbage left in out cells on failure, results of every VARIANT
// type, arrays of impossible shapes, odd texts, exceptions, and failing
// QueryInterface and allocations. Every scenario ends with the fixture's
// objects and the host's handlers back where they started; under
// WINEDEBUG=warn+heap a double free shows too.

#include <gtest/gtest.h>

#include <cwchar>
#include <functional>
#include <string>
#include <vector>

#include "tests/module/call_harness.h"
#include "tests/servers/hostile_fixture_values.h"

using namespace MetaObj;
using namespace HostileValues;

namespace {

const std::string kHostile = std::string("COM://") + kProgIdNarrow;
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

class HostileServerTest : public CallTest {
protected:
    void WithHostile(const std::function<void(CMetaObjectCOMHandler&)>& body)
    {
        const long before = server.LiveObjects();
        RunInitialised([&] {
            auto* handler = static_cast<CMetaObjectCOMHandler*>(module->GetHandlerObject());
            EXPECT_EQ(handler->Open(kHostile.c_str(), nullptr), MetaStatusOk);
            if (handler->IsOpen())
                body(*handler);
            EXPECT_EQ(handler->Release(), MetaStatusClosed);
            host.FreeReleasedHandlers(module->FreeHandlerObject);
            EXPECT_TRUE(host.Registrations().empty()) << "a handler still in use";
        });
        EXPECT_EQ(server.LiveObjects(), before);
    }
    // Server-wide settings; each test that changes one puts it back.
    void SetEvery(CMetaObjectCOMHandler& handler, const wchar_t* key, std::int32_t every)
    {
        const Param value = Int(every);
        EXPECT_EQ(Call(handler, key, {value.get()}).status, MetaStatusOk);
    }
};

// By COM's rules a failing callee leaves its out cells valid; these leave
// 0xdeadbeef in cells of VARIANTs, objects and arrays. The call fails with no
// write-back, and nothing the server left is freed, released or read. A cell
// that changed is given up: when the server did not release what went out,
// that one reference is lost, and the row puts it back by hand. A text cell's
// BSTR is freed after every call, so there only a valid replacement is shown:
// it is freed, not leaked (heap checking would see a double free).
TEST_F(HostileServerTest, GarbageInOutCellsOnFailure)
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
        {"VARIANT cell", L"Invoke:GarbageVariant", 0, text(L"VT_VARIANT"), 0},
        {"VARIANT cell, cleared first", L"Invoke:GarbageVariant", 1, text(L"VT_VARIANT"), 0},
        {"object cell", L"Invoke:GarbageObject", 0, object, 1},
        {"object cell, released first", L"Invoke:GarbageObject", 1, object, 0},
        {"array cell", L"Invoke:GarbageArray", 0, array, 0},
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

// Every vt a server may put in a result, plain, by reference, as an array and
// both: the call succeeds, a by-reference value is shown as a number and never
// followed, and whatever the item holds is given back.
TEST_F(HostileServerTest, ResultsOfEveryType)
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

// Arrays and texts of impossible or odd shapes both ways, structs without type
// information, and a result left by a failing call (cleared, not read).
TEST_F(HostileServerTest, OddShapesEitherWay)
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
        // Arrays no SAFEARRAY can hold: no translation, so Invoke never runs.
        {"no bounds", L"Invoke:Swallow", array({}), MetaStatusInvokeFailed, "none"},
        {"65,536 dimensions", L"Invoke:Swallow", array(Bounds(65536, {0, 1})), MetaStatusInvokeFailed, "none"},
        {"101 dimensions", L"Invoke:Swallow", array(Bounds(101, {0, 1})), MetaStatusInvokeFailed, "none"},
        {"a count left open, as a type library gives it", L"Invoke:Swallow", array({{0, -1}}),
         MetaStatusInvokeFailed, "none"},
        {"2^32 elements", L"Invoke:Swallow", array({{0, 65536}, {0, 65536}}), MetaStatusInvokeFailed, "none"},
        {"a negative count", L"Invoke:Swallow", array({{0, -7}}), MetaStatusInvokeFailed, "none"},
        {"an empty dimension", L"Invoke:Swallow", array({{0, 0}}), MetaStatusOk, "other"},
        // A struct whose type can't be found goes out as a VT_RECORD without a record.
        {"a struct of no name", L"Invoke:Swallow", point(L""), MetaStatusOk, "other"},
        {"a struct named by no GUID", L"Invoke:Swallow", point(L"{not a guid}"), MetaStatusOk, "other"},
        {"a struct of a GUID of no type", L"Invoke:Swallow", point(L"{00000000-0000-0000-0000-000000000001}"),
         MetaStatusOk, "other"},
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

TEST_F(HostileServerTest, CxxExceptionsOutOfTheServer)
{
    WithHostile([&](CMetaObjectCOMHandler& handler) {
        const Param inInvoke = Int(kThrowInInvoke);
        const Outcome outcome = Call(handler, L"Invoke:Throw", {inInvoke.get()});
        EXPECT_EQ(outcome.status, MetaStatusInvokeFailed);
        EXPECT_EQ(outcome.record.code, kUntouchedCode);
        // The look-up runs in the call object's constructor: the slot stays empty.
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

// Every Nth QueryInterface of any hostile object fails: creation, wrapping of
// results and children. Statuses may vary with N; references may not.
TEST_F(HostileServerTest, EveryNthQueryInterfaceFails)
{
    WithHostile([&](CMetaObjectCOMHandler& control) {
        for (std::int32_t every = 1; every <= 4; ++every) {
            SCOPED_TRACE("every " + std::to_string(every));
            SetEvery(control, L"Set:FailQueryEvery", every);
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
            SetEvery(control, L"Set:FailQueryEvery", 0);
        }
    });
}

// Every Nth allocation of a result fails in the server: the call fails with
// the server's status, and the next one works.
TEST_F(HostileServerTest, EveryNthAllocationFails)
{
    WithHostile([&](CMetaObjectCOMHandler& handler) {
        for (std::int32_t every = 1; every <= 3; ++every) {
            SCOPED_TRACE("every " + std::to_string(every));
            SetEvery(handler, L"Set:FailAllocationEvery", every);
            int failed = 0;
            for (int call = 0; call < 6; ++call) {
                const Param which = Int(call % 2 == 0 ? kEmbeddedNul : kLongText);
                const Outcome outcome = Call(handler, L"Invoke:GiveText", {which.get()});
                EXPECT_EQ(outcome.result == nullptr, outcome.status != MetaStatusOk);
                failed += outcome.status == MetaStatusInvokeFailed;
            }
            EXPECT_EQ(failed, 6 / every);
            SetEvery(handler, L"Set:FailAllocationEvery", 0);
        }
    });
}

}  // namespace
