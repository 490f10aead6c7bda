// The speed of walking a collection through the module: elements per second
// over the collection fixture's 100,000 VT_I4 elements by NextElements batches
// of 1, 16 and 250, each element freed as a host frees it, against a raw
// IEnumVARIANT::Next loop with the same batch on the same collection, in this
// thread's multithreaded apartment and in the same run. Prints the figures and
// ratios; asserts nothing. Needs the fixture server registered in the prefix.

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

constexpr char kIdentity[] = "COM://ComHandlerTest.CollectionFixture";
constexpr std::int32_t kElements = 100000;
constexpr std::uint32_t kBatches[] = {1, 16, 250};
constexpr double kAimPerSecond = 10e6;  // with batches of 250
// Each side walks the whole collection once a run, taking turns with the
// others; the best run counts, as a shared machine slows some runs.
constexpr int kRuns = 7;

double Seconds()
{
    LARGE_INTEGER now, frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

void FreeItems(CMetaObjectHandler& handler, CItemList& items)
{
    for (CMetaObjectItem* item : items) {
        item->Clear();
        handler.FreeItem(item);
    }
    items.clear();
}

// One walk from the start by the module; gives the number of elements seen.
long WalkThroughModule(CMetaObjectHandler& handler, IEnumVARIANT** slot, std::uint32_t batch)
{
    handler.ResetEnumerator(slot);
    long seen = 0;
    CItemList items;
    for (;;) {
        std::uint32_t fetched = 0;
        if (handler.NextElements(slot, batch, items, &fetched) != MetaStatusOk || fetched == 0)
            break;
        seen += fetched;
        FreeItems(handler, items);
    }
    FreeItems(handler, items);
    return seen;
}

// The same walk by hand: Next into a block of VARIANTs, each cleared.
long WalkRaw(IEnumVARIANT* enumerator, std::uint32_t batch)
{
    enumerator->Reset();
    std::vector<VARIANT> block(batch);
    for (VARIANT& value : block)
        VariantInit(&value);
    long seen = 0;
    for (;;) {
        ULONG fetched = 0;
        const HRESULT hr = enumerator->Next(batch, block.data(), &fetched);
        if (FAILED(hr) || fetched == 0)
            break;
        seen += static_cast<long>(fetched);
        for (ULONG at = 0; at < fetched; ++at)
            VariantClear(&block[at]);
        if (hr != S_OK)
            break;
    }
    return seen;
}

// A collection's enumerator by its _NewEnum, or null.
ComPtr<IEnumVARIANT> RawEnumerator(IDispatch* collection)
{
    DISPPARAMS none{};
    VARIANT answer;
    VariantInit(&answer);
    ComPtr<IEnumVARIANT> enumerator;
    if (SUCCEEDED(collection->Invoke(DISPID_NEWENUM, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none,
                                     &answer, nullptr, nullptr)) &&
        (answer.vt == VT_UNKNOWN || answer.vt == VT_DISPATCH) && answer.punkVal)
        answer.punkVal->QueryInterface(IID_IEnumVARIANT, enumerator.PutVoid());
    VariantClear(&answer);
    return enumerator;
}

// The fixture's collection of kElements, as the object item of Make's result.
CMetaObjectItem* MakeCollection(CMetaObjectHandler& maker)
{
    CMetaObjectInt flags(0);
    flags.GetTypeDesc().signature = CMetaString(L"VT_I4");
    CMetaObjectInt size(kElements);
    size.GetTypeDesc().signature = CMetaString(L"VT_I4");
    CItemList arguments{&flags, &size};
    CCOMMethodInvoke* call = nullptr;
    maker.CreateMethodInvoke(&call, CMetaString(L"Invoke:Make"));
    maker.SetInvokeParams(&call, arguments);
    CMethodInvokeStatus status;
    CMetaObjectItem* result = nullptr;
    maker.ExecuteInvoke(&call, &status, &result);
    maker.FreeMethodInvoke(&call);
    return result;
}

struct Row {
    double module = 1e300, raw = 1e300;  // best seconds of one walk
};

}  // namespace

int main()
{
    CFixtureSession session;
    if (!session.Open("walk_bench", kIdentity))
        return 1;
    CMetaObjectHandler* maker = session.handler;
    CMetaObjectItem* collectionItem = MakeCollection(*maker);
    auto* collectionObject = dynamic_cast<CMetaObjectObject*>(collectionItem);
    CMetaObjectHandler* collection = collectionObject ? collectionObject->handler : nullptr;
    IEnumVARIANT* slot = nullptr;
    ComPtr<IEnumVARIANT> raw = collection ? RawEnumerator(collection->GetDispatchPointer()) : nullptr;
    if (!collection || collection->OpenEnumerator(&slot) != MetaStatusOk || !raw) {
        std::fprintf(stderr, "walk_bench: the fixture's collection doesn't open\n");
        return 1;
    }
    for (std::uint32_t batch : kBatches) {
        const long viaModule = WalkThroughModule(*collection, &slot, batch);
        const long viaRaw = WalkRaw(raw.Get(), batch);
        if (viaModule != kElements || viaRaw != kElements) {
            std::fprintf(stderr, "walk_bench: batches of %u saw %ld and %ld elements, not %d\n", batch, viaModule,
                         viaRaw, kElements);
            return 1;
        }
    }

    std::vector<Row> rows(std::size(kBatches));
    for (int run = 0; run < kRuns; ++run) {
        for (std::size_t at = 0; at < rows.size(); ++at) {
            double start = Seconds();
            WalkThroughModule(*collection, &slot, kBatches[at]);
            rows[at].module = std::min(rows[at].module, Seconds() - start);
            start = Seconds();
            WalkRaw(raw.Get(), kBatches[at]);
            rows[at].raw = std::min(rows[at].raw, Seconds() - start);
        }
    }

    std::printf("A collection of %d VT_I4 elements of ComHandlerTest.CollectionFixture, walked from the start\n"
                "in this thread's multithreaded apartment; best of %d walks of each side.\n"
                "  module  ResetEnumerator, then NextElements until it fetches nothing, each item freed by FreeItem\n"
                "  raw     IEnumVARIANT::Reset, then Next with the same batch, each VARIANT cleared\n\n",
                kElements, kRuns);
    std::printf("%-8s %16s %16s %12s  %s\n", "batch", "module elem/s", "raw elem/s", "raw/module", "aim");
    for (std::size_t at = 0; at < rows.size(); ++at) {
        const double modulePerSecond = kElements / rows[at].module;
        const double rawPerSecond = kElements / rows[at].raw;
        char aim[48] = "-";
        if (kBatches[at] == 250)
            std::snprintf(aim, sizeof aim, "at least %.0f/s: %s", kAimPerSecond,
                          modulePerSecond >= kAimPerSecond ? "met" : "missed");
        std::printf("%-8u %16.0f %16.0f %12.2f  %s\n", kBatches[at], modulePerSecond, rawPerSecond,
                    rawPerSecond / modulePerSecond, aim);
    }

    raw.Reset();
    collection->CloseEnumerator(&slot);
    collectionItem->Clear();
    maker->FreeItem(collectionItem);
    return 0;
}
