// The cost of arrays through the module, on one array fixture in this thread's
// multithreaded apartment, against a raw loop of SafeArrayPutElement and
// SafeArrayGetElement over the same shape, timed in the same run. Prints
// milliseconds and ratios; asserts nothing. Needs ComHandlerTest.ArrayFixture
// registered in the prefix.

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
#include "metaobj/compound_items.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/platform_handles.h"

using namespace MetaObj;

namespace {

constexpr char kIdentity[] = "COM://ComHandlerTest.ArrayFixture";
// Best of a few runs, taking turns: on a shared machine some run of each side
// finds the processor free.
constexpr int kRuns = 3;

double Seconds()
{
    LARGE_INTEGER now, frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

double BestMilliseconds(const std::function<void()>& side)
{
    double best = 1e300;
    for (int run = 0; run < kRuns; ++run) {
        const double start = Seconds();
        side();
        best = std::min(best, (Seconds() - start) * 1e3);
    }
    return best;
}

struct Shape {
    const char* label;
    const wchar_t* signature;
    VARTYPE type;
    std::vector<SAFEARRAYBOUND> bounds;  // first dimension first
    bool aimed;                          // the shapes with aims: send at most 1.5x raw, trip 3x
};

// The host's array item for the shape, each element its position.
std::unique_ptr<CMetaObjectArray> MakeItem(const Shape& shape)
{
    auto array = std::make_unique<CMetaObjectArray>();
    array->SetValue(CMetaString(shape.signature));
    CTypeDesc type;
    type.EnsureBounds();
    for (const SAFEARRAYBOUND& bound : shape.bounds)
        type.bounds->Add(bound.lLbound, static_cast<std::int32_t>(bound.cElements));
    array->InitElements(type);
    for (std::int32_t at = 0; at < array->elementCount; ++at) {
        if (shape.type == VT_I4)
            array->elements[at] = new CMetaObjectInt(at);
        else if (shape.type == VT_R8)
            array->elements[at] = new CMetaObjectReal(at + 0.5);
        else {
            auto* text = new CMetaObjectString;
            text->value = CMetaString(std::to_wstring(at).c_str());
            array->elements[at] = text;
        }
    }
    return array;
}

// Every index of the shape in the walk's order: the last dimension fastest.
template <typename Visit>
void ForEachIndex(const Shape& shape, Visit visit)
{
    const std::size_t dimensions = shape.bounds.size();
    std::vector<LONG> index(dimensions);
    for (std::size_t d = 0; d < dimensions; ++d)
        index[d] = shape.bounds[d].lLbound;
    long position = 0;
    for (;;) {
        visit(index.data(), position++);
        std::size_t d = dimensions;
        while (d > 0) {
            --d;
            if (index[d] < shape.bounds[d].lLbound + static_cast<LONG>(shape.bounds[d].cElements) - 1) {
                ++index[d];
                break;
            }
            index[d] = shape.bounds[d].lLbound;
            if (d == 0)
                return;
        }
    }
}

// The raw side: the values of the host's items written with SafeArrayPutElement,
// then read back with SafeArrayGetElement, over the same shape.
void RawRoundTrip(const Shape& shape, const std::vector<std::wstring>& texts)
{
    std::vector<SAFEARRAYBOUND> layout = shape.bounds;
    SAFEARRAY* array = SafeArrayCreate(shape.type, static_cast<UINT>(layout.size()), layout.data());
    ForEachIndex(shape, [&](LONG* index, long position) {
        if (shape.type == VT_I4) {
            LONG value = position;
            SafeArrayPutElement(array, index, &value);
        } else if (shape.type == VT_R8) {
            double value = position + 0.5;
            SafeArrayPutElement(array, index, &value);
        } else {
            VARIANT value;
            value.vt = VT_BSTR;
            value.bstrVal = SysAllocString(texts[position].c_str());
            SafeArrayPutElement(array, index, &value);
            VariantClear(&value);
        }
    });
    volatile double sink = 0;
    ForEachIndex(shape, [&](LONG* index, long) {
        if (shape.type == VT_I4) {
            LONG value = 0;
            SafeArrayGetElement(array, index, &value);
            sink = sink + value;
        } else if (shape.type == VT_R8) {
            double value = 0;
            SafeArrayGetElement(array, index, &value);
            sink = sink + value;
        } else {
            VARIANT value;
            VariantInit(&value);
            SafeArrayGetElement(array, index, &value);
            sink = sink + SysStringLen(value.bstrVal);
            VariantClear(&value);
        }
    });
    SafeArrayDestroy(array);
}

void FreeResult(CMetaObjectHandler& handler, CMetaObjectItem* result)
{
    if (!result)
        return;
    result->Clear();
    handler.FreeItem(result);
}

// Echo through the module: the item out as a parameter, the copy back as a
// result. With wantResult false only the parameter side is translated.
MetaStatus Echo(CMetaObjectHandler& handler, CMetaObjectItem* item, bool wantResult, std::int32_t* count)
{
    CCOMMethodInvoke* slot = nullptr;
    handler.CreateMethodInvoke(&slot, CMetaString(L"Invoke:Echo"));
    CItemList list{item};
    handler.SetInvokeParams(&slot, list);
    CMethodInvokeStatus status;
    CMetaObjectItem* result = nullptr;
    const MetaStatus outcome = handler.ExecuteInvoke(&slot, &status, wantResult ? &result : nullptr);
    if (count)
        *count = result ? static_cast<CMetaObjectArray*>(result)->elementCount : -1;
    FreeResult(handler, result);
    handler.FreeMethodInvoke(&slot);
    return outcome;
}

}  // namespace

int main()
{
    CFixtureSession session;
    if (!session.Open("array_bench", kIdentity))
        return 1;
    CMetaObjectHandler* handler = session.handler;

    const std::vector<Shape> shapes = {
        {"1,000,000 VT_I4", L"VT_I4|VT_ARRAY", VT_I4, {{1000000, 0}}, true},
        {"1000x1000 VT_R8", L"VT_R8|VT_ARRAY", VT_R8, {{1000, 0}, {1000, 0}}, true},
        {"100,000 VT_VARIANT texts", L"VT_VARIANT|VT_ARRAY", VT_VARIANT, {{100000, 0}}, false},
    };
    std::printf("One ComHandlerTest.ArrayFixture in this thread's multithreaded apartment; Echo copies the array.\n"
                "Milliseconds, best of %d runs of each side.\n"
                "  send     the item out as a parameter of Echo, no result asked for\n"
                "  trip     the item out and the copy back as a new array item, freed\n"
                "  raw      SafeArrayPutElement then SafeArrayGetElement over the same shape\n"
                "  items    making and freeing as many element items alone, the floor of any result\n"
                "  trip/items  what a round trip costs beyond the items it must make\n\n",
                kRuns);
    std::printf("%-26s %9s %9s %9s %9s %10s %10s %11s  %s\n", "array", "send", "trip", "raw", "items", "send/raw",
                "trip/raw", "trip/items", "aims send, trip");
    for (const Shape& shape : shapes) {
        std::unique_ptr<CMetaObjectArray> item = MakeItem(shape);
        std::vector<std::wstring> texts;
        if (shape.type == VT_VARIANT) {
            for (std::int32_t at = 0; at < item->elementCount; ++at)
                texts.push_back(std::to_wstring(at));
        }
        std::int32_t count = 0;
        if (Echo(*handler, item.get(), true, &count) != MetaStatusOk || count != item->elementCount) {
            std::fprintf(stderr, "array_bench: %s didn't come back whole (%d elements)\n", shape.label, count);
            return 1;
        }
        const double send = BestMilliseconds([&] { Echo(*handler, item.get(), false, nullptr); });
        const double trip = BestMilliseconds([&] { Echo(*handler, item.get(), true, nullptr); });
        const double raw = BestMilliseconds([&] { RawRoundTrip(shape, texts); });
        const double items = BestMilliseconds([&] { MakeItem(shape); });
        constexpr double kSendAim = 1.5, kTripAim = 3.0;
        char aims[64] = "-";
        if (shape.aimed)
            std::snprintf(aims, sizeof aims, "at most %.1fx: %s, %.0fx: %s", kSendAim,
                          send / raw <= kSendAim ? "met" : "missed", kTripAim,
                          trip / raw <= kTripAim ? "met" : "missed");
        std::printf("%-26s %9.1f %9.1f %9.1f %9.1f %10.2f %10.2f %11.2f  %s\n", shape.label, send, trip, raw, items,
                    send / raw, trip / raw, trip / items, aims);
    }
    return 0;
}
