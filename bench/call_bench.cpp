// The cost of one call through the module, on one free-threaded call fixture in
// this thread's multithreaded apartment, against a raw IDispatch::Invoke with a
// cached DISPID on the same object, and against the same call made from
// VBScript. Each side is timed in the same run; prints nanoseconds per call and
// the ratios. Needs ComHandlerTest.CallFixture registered in the prefix.

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/fixture_session.h"
#include "contract/handler_base.h"
#include "host/module_loader.h"
#include "host/reference_host.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/platform_handles.h"

using namespace MetaObj;

namespace {

constexpr char kIdentity[] = "COM://ComHandlerTest.CallFixture";
constexpr wchar_t kProgId[] = L"ComHandlerTest.CallFixture";
// Each side is timed in many short runs, taking turns with the others, and the
// best run counts: on a shared machine some short run of each side finds the
// processor free, where one long run would measure the neighbours too.
constexpr double kRunSeconds = 0.1;
constexpr int kRuns = 6;

double Seconds()
{
    LARGE_INTEGER now, frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

double TimeCalls(const std::function<void()>& call, long count)
{
    const double start = Seconds();
    for (long at = 0; at < count; ++at)
        call();
    return Seconds() - start;
}

// Enough calls for one run of the side to take about kRunSeconds.
long CallsPerRun(const std::function<void()>& side)
{
    long count = 64;
    double spent = 0;
    while ((spent = TimeCalls(side, count)) < 0.05)
        count *= 4;
    return std::max(1000L, static_cast<long>(kRunSeconds * count / spent));
}

// Nanoseconds per call of each side, best of kRuns.
std::vector<double> BestNanoseconds(const std::vector<const std::function<void()>*>& sides)
{
    std::vector<long> counts;
    for (const auto* side : sides)
        counts.push_back(CallsPerRun(*side));
    std::vector<double> best(sides.size(), 1e300);
    for (int run = 0; run < kRuns; ++run) {
        for (std::size_t side = 0; side < sides.size(); ++side)
            best[side] = std::min(best[side], TimeCalls(*sides[side], counts[side]) * 1e9 / counts[side]);
    }
    return best;
}

class Variant {
public:
    Variant() { VariantInit(&value); }
    ~Variant() { VariantClear(&value); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
    VARIANT* Get() { return &value; }

private:
    VARIANT value;
};

DISPID DispatchIdOf(IDispatch* object, const wchar_t* name)
{
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    return id;
}

// A late-bound call by name with the arguments in the order of the parameters.
HRESULT CallByName(IDispatch* object, const wchar_t* name, WORD flags, std::vector<VARIANT> arguments,
                   VARIANT* result)
{
    std::reverse(arguments.begin(), arguments.end());
    DISPID put = DISPID_PROPERTYPUT;
    const bool isPut = flags == DISPATCH_PROPERTYPUT;
    DISPPARAMS params{arguments.data(), isPut ? &put : nullptr, static_cast<UINT>(arguments.size()), isPut ? 1u : 0u};
    return object->Invoke(DispatchIdOf(object, name), IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, nullptr,
                          nullptr);
}

// Borrows the text: the caller keeps owning it.
VARIANT TextVariant(BSTR text)
{
    VARIANT value;
    VariantInit(&value);
    V_VT(&value) = VT_BSTR;
    V_BSTR(&value) = text;
    return value;
}

template <typename Item>
std::unique_ptr<Item> Argument(std::unique_ptr<Item> item, const wchar_t* signature)
{
    item->GetTypeDesc().signature = CMetaString(signature);
    return item;
}

// One member called three ways. The host's argument items live here.
struct Case {
    const char* label;
    const wchar_t* key;
    const wchar_t* member;
    const wchar_t* script;  // the statement in a VBScript loop, on the object o and the variable n
    double keptAim;         // the highest ratio kept/raw wanted; 0 for none
    double rebuiltAim;      // the same for rebuilt/raw
    std::vector<std::unique_ptr<CMetaObjectItem>> items;
    std::function<void(IDispatch*, DISPID)> raw;
    std::int32_t expected;  // what the first call gives back, checked before timing
    bool writesBack;        // the first item is in/out and must come back one higher
};

// "at most 1.5x: met", or "-" for no aim.
std::string AimText(double ratio, double aim)
{
    if (aim <= 0)
        return "-";
    char text[48];
    std::snprintf(text, sizeof text, "at most %.1fx: %s", aim, ratio <= aim ? "met" : "missed");
    return text;
}

std::vector<Case> MakeCases()
{
    std::vector<Case> cases;
    cases.push_back({"get, no argument", L"Get:Number", L"Number", L"x = o.Number", 1.2, 2.0, {},
                     [](IDispatch* object, DISPID id) {
                         DISPPARAMS none{};
                         Variant result;
                         object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, result.Get(),
                                        nullptr, nullptr);
                     },
                     42, false});

    // The raw caller holds the same values as the host's items, the text as
    // its own wide string: both make a BSTR of it for each call.
    Case four{"method, four arguments", L"Invoke:Four", L"Four", L"x = o.Four(7, \"four\", 2.5, True)", 1.5, 2.0, {},
              [](IDispatch* object, DISPID id) {
                  Bstr text(SysAllocString(L"four"));
                  VARIANT arguments[4];
                  for (VARIANT& argument : arguments)
                      VariantInit(&argument);
                  V_VT(&arguments[3]) = VT_I4;
                  V_I4(&arguments[3]) = 7;
                  V_VT(&arguments[2]) = VT_BSTR;
                  V_BSTR(&arguments[2]) = text.Get();
                  V_VT(&arguments[1]) = VT_R8;
                  V_R8(&arguments[1]) = 2.5;
                  V_VT(&arguments[0]) = VT_BOOL;
                  V_BOOL(&arguments[0]) = VARIANT_TRUE;
                  DISPPARAMS params{arguments, nullptr, 4, 0};
                  Variant result;
                  object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, result.Get(), nullptr,
                                 nullptr);
              },
              7 + 4 + 2 + 1000, false};
    four.items.push_back(Argument(std::make_unique<CMetaObjectInt>(7), L"VT_I4"));
    auto text = std::make_unique<CMetaObjectString>();
    text->value = CMetaString(L"four");
    four.items.push_back(Argument(std::move(text), L"VT_BSTR"));
    four.items.push_back(Argument(std::make_unique<CMetaObjectReal>(2.5), L"VT_R8"));
    four.items.push_back(Argument(std::make_unique<CMetaObjectBool>(1), L"VT_BOOL"));
    cases.push_back(std::move(four));

    // The value goes up by one each call, on every side; no run is long enough to overflow it.
    Case ref{"in/out long", L"Invoke:RefI4", L"RefI4", L"o.RefI4 (n)", 0, 2.0, {},
             [](IDispatch* object, DISPID id) {
                 static LONG cell = 5;
                 VARIANT argument;
                 VariantInit(&argument);
                 V_VT(&argument) = VT_I4 | VT_BYREF;
                 V_I4REF(&argument) = &cell;
                 DISPPARAMS params{&argument, nullptr, 1, 0};
                 Variant result;
                 object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, result.Get(), nullptr,
                                nullptr);
             },
             0, true};
    auto number = Argument(std::make_unique<CMetaObjectInt>(5), L"VT_I4|VT_PTR");
    number->GetTypeDesc().isByRef = 1;
    number->SetDirection(2);
    ref.items.push_back(std::move(number));
    cases.push_back(std::move(ref));
    return cases;
}

CItemList ListOf(const Case& c)
{
    CItemList list;
    for (const auto& item : c.items)
        list.push_back(item.get());
    return list;
}

void FreeResult(CMetaObjectHandler& handler, CMetaObjectItem* result)
{
    if (!result)
        return;
    result->Clear();
    handler.FreeItem(result);
}

// One call as a host makes it when it builds the call anew for each statement:
// a call object for the key, a fresh list of the argument items, the call, the
// result given back, the call object freed. With value, the result's number is
// read into it (-1 for a failure); timed, it isn't, as the other sides don't
// read theirs.
void CallRebuilt(CMetaObjectHandler& handler, const Case& c, std::int32_t* value = nullptr)
{
    CCOMMethodInvoke* slot = nullptr;
    handler.CreateMethodInvoke(&slot, CMetaString(c.key));
    CItemList list = ListOf(c);
    handler.SetInvokeParams(&slot, list);
    CMethodInvokeStatus status;
    CMetaObjectItem* result = nullptr;
    const MetaStatus outcome = handler.ExecuteInvoke(&slot, &status, &result);
    if (value) {
        *value = outcome == MetaStatusOk ? 0 : -1;
        if (auto* number = dynamic_cast<CMetaObjectInt*>(result))
            *value = number->value;
    }
    FreeResult(handler, result);
    handler.FreeMethodInvoke(&slot);
}

struct ModuleRow {
    double kept = 0, rebuilt = 0, raw = 0;
};

ModuleRow TimeThroughModule(CMetaObjectHandler& handler, Case& c)
{
    IDispatch* object = handler.GetDispatchPointer();
    const DISPID id = DispatchIdOf(object, c.member);

    // A host that calls one member again and again keeps the call object with
    // its list of argument items, and writes new values into the items when it
    // has them; SetParams appends, so the list is given once. Its status record
    // is kept with it. Per call: Execute, and the result given back.
    CCOMMethodInvoke* slot = nullptr;
    handler.CreateMethodInvoke(&slot, CMetaString(c.key));
    CItemList list = ListOf(c);
    handler.SetInvokeParams(&slot, list);
    CMethodInvokeStatus status;
    const std::function<void()> kept = [&] {
        CMetaObjectItem* result = nullptr;
        handler.ExecuteInvoke(&slot, &status, &result);
        FreeResult(handler, result);
    };
    const std::function<void()> rebuilt = [&] { CallRebuilt(handler, c); };
    const std::function<void()> raw = [&] { c.raw(object, id); };

    ModuleRow row;
    const std::vector<double> best = BestNanoseconds({&kept, &rebuilt, &raw});
    row.kept = best[0];
    row.rebuilt = best[1];
    row.raw = best[2];
    handler.FreeMethodInvoke(&slot);
    return row;
}

// The same calls from VBScript: a function per case creates the object inside
// the script and loops k calls; Eval runs it. An empty loop of the same k, with
// the same creation, is taken off.
struct ScriptRow {
    long calls = 0;
    double perCall = 0, loop = 0;  // loop: one turn of the empty loop
    std::string error;
};

std::wstring ScriptCode(const std::vector<Case>& cases)
{
    std::wstring code;
    auto function = [&](const std::wstring& name, const std::wstring& body) {
        code += L"Function " + name + L"(k)\n  Dim o, i, x, n\n  n = CLng(5)\n  Set o = CreateObject(\"" + kProgId +
                L"\")\n  For i = 1 To k\n" + body + L"  Next\n  " + name + L" = 0\nEnd Function\n";
    };
    function(L"EmptyLoop", L"");
    for (std::size_t at = 0; at < cases.size(); ++at)
        function(L"Case" + std::to_wstring(at), std::wstring(L"    ") + cases[at].script + L"\n");
    return code;
}

class ScriptBench {
public:
    // On a thread of its own apartment, where the control and the objects the
    // script makes live without a proxy between them and the loop.
    explicit ScriptBench(const std::vector<Case>& cases) : cases(cases) {}

    std::vector<ScriptRow> Run()
    {
        HANDLE thread = CreateThread(nullptr, 0, &ScriptBench::Body, this, 0, nullptr);
        if (thread) {
            WaitForSingleObject(thread, INFINITE);
            CloseHandle(thread);
        }
        return rows;
    }

private:
    static DWORD WINAPI Body(void* self)
    {
        if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
            return 1;
        static_cast<ScriptBench*>(self)->Measure();
        CoUninitialize();
        return 0;
    }

    // Seconds for one Eval of name(k), or a negative number when it fails.
    double TimeEval(IDispatch* control, const std::wstring& name, long k)
    {
        Bstr expression(SysAllocString((name + L"(" + std::to_wstring(k) + L")").c_str()));
        Variant result;
        const double start = Seconds();
        const HRESULT hr = CallByName(control, L"Eval", DISPATCH_METHOD, {TextVariant(expression.Get())},
                                      result.Get());
        const double spent = Seconds() - start;
        return SUCCEEDED(hr) ? spent : -1;
    }

    void Measure()
    {
        rows.assign(cases.size(), ScriptRow());
        CLSID classId;
        ComPtr<IDispatch> control;
        if (FAILED(CLSIDFromProgID(L"MSScriptControl.ScriptControl", &classId)) ||
            FAILED(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, control.PutVoid()))) {
            rows.assign(cases.size(), ScriptRow{0, 0, 0, "no MSScriptControl.ScriptControl"});
            return;
        }
        Bstr language(SysAllocString(L"VBScript"));
        Bstr code(SysAllocString(ScriptCode(cases).c_str()));
        if (FAILED(CallByName(control.Get(), L"Language", DISPATCH_PROPERTYPUT, {TextVariant(language.Get())},
                              nullptr)) ||
            FAILED(CallByName(control.Get(), L"AddCode", DISPATCH_METHOD, {TextVariant(code.Get())}, nullptr))) {
            rows.assign(cases.size(), ScriptRow{0, 0, 0, "the script control refused the code"});
            return;
        }
        for (std::size_t at = 0; at < cases.size(); ++at) {
            ScriptRow& row = rows[at];
            const std::wstring name = L"Case" + std::to_wstring(at);
            const double probe = TimeEval(control.Get(), name, 1000);
            if (probe < 0) {
                row.error = "Eval failed";
                continue;
            }
            long k = std::max(1000L, static_cast<long>(kRunSeconds / (probe / 1000)));
            double loop = 1e300, empty = 1e300;
            for (int run = 0; run < kRuns; ++run) {
                loop = std::min(loop, TimeEval(control.Get(), name, k));
                empty = std::min(empty, TimeEval(control.Get(), L"EmptyLoop", k));
            }
            row.calls = k;
            row.loop = empty * 1e9 / k;
            row.perCall = (loop - empty) * 1e9 / k;
        }
    }

    const std::vector<Case>& cases;
    std::vector<ScriptRow> rows;
};

}  // namespace

int main()
{
    CFixtureSession session;
    if (!session.Open("call_bench", kIdentity))
        return 1;
    CMetaObjectHandler* handler = session.handler;

    std::vector<Case> cases = MakeCases();
    for (const Case& c : cases) {
        std::int32_t first = -1;
        CallRebuilt(*handler, c, &first);
        const bool wroteBack = !c.writesBack || dynamic_cast<CMetaObjectInt&>(*c.items[0]).value == 6;
        if (first != c.expected || !wroteBack) {
            std::fprintf(stderr, "call_bench: %ls answered %d, not %d%s\n", c.key, first, c.expected,
                         wroteBack ? "" : ", or didn't write back");
            return 1;
        }
    }

    std::vector<ModuleRow> moduleRows;
    for (Case& c : cases)
        moduleRows.push_back(TimeThroughModule(*handler, c));
    const std::vector<ScriptRow> scriptRows = ScriptBench(cases).Run();

    std::printf("One %ls, created and called in this thread's multithreaded apartment.\n"
                "Nanoseconds per call, best of %d runs of about %.1f s of each side.\n",
                kProgId, kRuns, kRunSeconds);
    std::printf("  kept     the host keeps the call object, its argument items and status record: per call ExecuteInvoke, "
                "FreeItem\n"
                "  rebuilt  per call CreateMethodInvoke, SetInvokeParams, ExecuteInvoke, FreeItem, "
                "FreeMethodInvoke\n"
                "  raw      IDispatch::Invoke with a cached DISPID; the four-argument call makes its BSTR too\n\n");
    std::printf("%-24s %9s %9s %9s %9s %12s  %s\n", "call", "kept", "rebuilt", "raw", "kept/raw", "rebuilt/raw",
                "aims kept, rebuilt");
    for (std::size_t at = 0; at < cases.size(); ++at) {
        const ModuleRow& row = moduleRows[at];
        const double ratio = row.kept / row.raw;
        const double rebuilt = row.rebuilt / row.raw;
        std::printf("%-24s %9.0f %9.0f %9.0f %9.2f %12.2f  %s, %s\n", cases[at].label, row.kept, row.rebuilt, row.raw,
                    ratio, rebuilt, AimText(ratio, cases[at].keptAim).c_str(),
                    AimText(rebuilt, cases[at].rebuiltAim).c_str());
    }

    std::printf("\nFrom VBScript through MSScriptControl.ScriptControl: Eval of a function that creates the\n"
                "object and loops k calls, less an empty loop of the same k. The in/out long goes as (n),\n"
                "by value: under Wine a variable by reference fails with a type mismatch.\n\n");
    std::printf("%-24s %9s %9s %11s %14s %17s\n", "call", "k", "vbscript", "empty turn", "kept/vbscript",
                "rebuilt/vbscript");
    for (std::size_t at = 0; at < cases.size(); ++at) {
        const ScriptRow& script = scriptRows[at];
        if (!script.error.empty()) {
            std::printf("%-24s %s\n", cases[at].label, script.error.c_str());
            continue;
        }
        std::printf("%-24s %9ld %9.0f %11.0f %14.2f %17.2f\n", cases[at].label, script.calls, script.perCall,
                    script.loop, moduleRows[at].kept / script.perCall, moduleRows[at].rebuilt / script.perCall);
    }

    return 0;
}
