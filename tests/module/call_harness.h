#pragma once
// Method calls through the module's handlers, as a host makes them: items
// built here, a call object in a slot, the result freed through the handler.
// Every object a test opens ends with every handler freed and the fixture
// server's count of live objects back where it started.

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
#include "tests/support/fixture_server.h"

// An item's direction.
enum : std::int32_t { kIn, kOut, kInOut };

// An item the test made: an object item gives its use back before it goes.
struct ParamDeleter {
    void operator()(MetaObj::CMetaObjectItem* item) const
    {
        item->Clear();
        delete item;
    }
};
using Param = std::unique_ptr<MetaObj::CMetaObjectItem, ParamDeleter>;

// An item the module made, freed by the handler that made the call.
struct ResultDeleter {
    MetaObj::CMetaObjectHandler* handler = nullptr;
    void operator()(MetaObj::CMetaObjectItem* item) const
    {
        item->Clear();
        handler->FreeItem(item);
    }
};
using Result = std::unique_ptr<MetaObj::CMetaObjectItem, ResultDeleter>;

// Items as a host builds them from a method's description. An out or in/out
// parameter is passed by reference, its signature marked as a pointer.
Param Char(wchar_t value, const wchar_t* signature);
Param Int(std::int32_t value, const wchar_t* signature = L"VT_I4");
Param Real(double value, const wchar_t* signature = L"VT_R8");
Param Bool(unsigned char value);
Param Text(const wchar_t* value, const wchar_t* signature = L"VT_BSTR");
Param Currency(const wchar_t* value);
Param Date(const wchar_t* value);
// A FixtureColour value, its type carrying the enumeration's values.
Param Colour(std::int32_t value, bool withValues = true);
// A FixturePoint with the two members.
Param Point(std::int32_t x, std::int32_t y);
Param ByRef(Param item, std::int32_t direction);
std::vector<MetaObj::CMetaObjectItem*> Items(const std::vector<Param>& params);
template <typename... Made>
std::vector<Param> ParamList(Made... made)
{
    std::vector<Param> params;
    (params.push_back(std::move(made)), ...);
    return params;
}

std::string Narrow(const MetaObj::CMetaString& text);
// An item's value as text; empty for none.
std::wstring ValueText(MetaObj::CMetaObjectItem* item);

// The outcome of one call; the record starts with marks, so that what a call
// leaves alone shows.
struct Outcome {
    MetaObj::MetaStatus status = MetaObj::MetaStatusOk;
    MetaObj::CMethodInvokeStatus record;
    Result result;
};
constexpr std::uint32_t kUntouchedCode = 77;
constexpr char kUntouchedText[] = "untouched";

class CallTest : public ModuleTest {
protected:
    void SetUp() override;

    // The body gets a handler opened on the identity, on a thread where the
    // module initialised COM.
    void WithObject(const std::string& identity, const std::function<void(CMetaObjectCOMHandler&)>& body,
                    MetaObj::CObjectOpenParams* params = nullptr);
    // The same on a new call fixture.
    void WithFixture(const std::function<void(CMetaObjectCOMHandler&)>& body);

    // CreateMethodInvoke, SetInvokeParams, ExecuteInvoke, FreeMethodInvoke.
    // The items stay the caller's. With wantResult false, ExecuteInvoke gets
    // no result pointer.
    Outcome Call(CMetaObjectCOMHandler& handler, const wchar_t* key,
                 const std::vector<MetaObj::CMetaObjectItem*>& params = {}, bool wantResult = true);
    std::string LastCall(CMetaObjectCOMHandler& handler);

    // An object item whose new handler holds a reference of its own on object.
    Param ObjectItem(IDispatch* object, const wchar_t* signature = L"VT_DISPATCH");

    CReferenceHost host;
    FixtureServer server;
};

// The call fixture's identity, in process or served by the local server.
std::string FixtureIdentity(bool local = false);

// The object an object item's handler holds, or null.
IDispatch* ObjectOf(const MetaObj::CMetaObjectItem* item);
// The handler of an object item, for calls of its own.
CMetaObjectCOMHandler& ItemHandler(const MetaObj::CMetaObjectItem* item);
