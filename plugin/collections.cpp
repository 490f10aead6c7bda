// The collection operations of the handler: a collection's IEnumVARIANT lives
// in a slot of the caller's, and its elements come back as items. The handler
// keeps no enumerator and takes no lock here; a slot belongs to its caller.

#include <windows.h>
#include <oleauto.h>

#include <memory>
#include <new>

#include "discovery/type_names.h"
#include "invoke/method_invoke.h"
#include "invoke/variant_owner.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/error_text.h"
#include "platform/platform_handles.h"
#include "plugin/com_handler.h"

using namespace MetaObj;

namespace {

constexpr DISPID kCountDispid = 1;  // taken for the count property without asking its name
constexpr ULONG kCountBatch = 250;
// Written into a fetched count before Next, to see whether the enumerator set it.
constexpr ULONG kFetchedUnset = 0xFFFFFFFFu;

// A block of VARIANTs, zeroed, each cleared when the block goes.
class VariantBlock {
public:
    explicit VariantBlock(ULONG count) : values(new (std::nothrow) VARIANT[count]()), count(values ? count : 0) {}
    VariantBlock(const VariantBlock&) = delete;
    VariantBlock& operator=(const VariantBlock&) = delete;
    ~VariantBlock() { Clear(count); }

    explicit operator bool() const { return values != nullptr; }
    VARIANT* Get() { return values.get(); }
    VARIANT& operator[](ULONG at) { return values[at]; }
    // VariantClear on the first `upTo`, which leaves them VT_EMPTY for the next Next.
    void Clear(ULONG upTo)
    {
        for (ULONG at = 0; at < upTo && at < count; ++at)
            VariantClear(&values[at]);
    }

private:
    std::unique_ptr<VARIANT[]> values;
    ULONG count;
};

// How many of the block's first elements a call of Next filled. An enumerator
// that leaves the fetched count alone gives no answer; then every slot is read,
// since those it did not fill are still VT_EMPTY and give no item. A count
// above what was asked is not believed either.
ULONG FilledCount(ULONG reported, ULONG asked)
{
    return reported == kFetchedUnset || reported > asked ? asked : reported;
}

// Elements that Next filled when it did not say how many: those not VT_EMPTY.
// An element that really is VT_EMPTY is missed; nothing better is to be had.
ULONG NonEmptyCount(VariantBlock& block, ULONG size)
{
    ULONG filled = 0;
    for (ULONG at = 0; at < size; ++at) {
        if (block[at].vt != VT_EMPTY)
            ++filled;
    }
    return filled;
}

// Walks a copy of the enumerator from its start, so that the slot's own
// position stays where it is. A copy that can't be had counts 0.
MetaStatus CountByWalking(IEnumVARIANT* enumerator, std::uint32_t& count)
{
    ComPtr<IEnumVARIANT> copy;
    if (FAILED(enumerator->Clone(copy.Put())) || !copy)
        return MetaStatusOk;
    VariantBlock batch(kCountBatch);
    if (!batch)
        return MetaStatusNoMemory;
    copy->Reset();
    for (;;) {
        ULONG fetched = kFetchedUnset;
        const HRESULT hr = copy->Next(kCountBatch, batch.Get(), &fetched);
        // An enumerator that doesn't say how many it gave is read by what it
        // left in the batch.
        const ULONG filled =
            fetched != kFetchedUnset ? FilledCount(fetched, kCountBatch) : NonEmptyCount(batch, kCountBatch);
        batch.Clear(kCountBatch);
        count += filled;
        // Exactly S_OK means a full batch and more to come. One that gave
        // nothing ends the walk all the same, rather than loop for ever.
        if (hr != S_OK || filled == 0)
            return MetaStatusOk;
    }
}

// The texts of an EXCEPINFO that nobody reads.
void FreeExceptionTexts(EXCEPINFO& exception)
{
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
    exception = EXCEPINFO{};
}

}  // namespace

MetaStatus CMetaObjectCOMHandler::OpenEnumerator(IEnumVARIANT** enumerator)
{
    SetErrorText(this, "");
    if (object == nullptr || enumerator == nullptr)
        return MetaStatusNoCollection;
    if (*enumerator != nullptr)
        return MetaStatusOk;

    DISPPARAMS none{};
    CVariant answer;
    EXCEPINFO exception{};
    UINT argumentError = 0;
    HRESULT hr = object->Invoke(DISPID_NEWENUM, IID_NULL, GetUserDefaultLCID(), DISPATCH_PROPERTYGET, &none,
                                &answer, &exception, &argumentError);
    if (FAILED(hr)) {
        FreeExceptionTexts(exception);
        VariantClear(&answer);
        hr = object->Invoke(DISPID_NEWENUM, IID_NULL, GetUserDefaultLCID(), DISPATCH_METHOD, &none, &answer,
                            &exception, &argumentError);
    }
    FreeExceptionTexts(exception);
    if (FAILED(hr))
        return MetaStatusNoCollection;

    const VARTYPE type = answer.Get().vt;
    if ((type != VT_UNKNOWN && type != VT_DISPATCH) || answer.Get().punkVal == nullptr)
        return MetaStatusNoCollection;
    IEnumVARIANT* found = nullptr;
    if (FAILED(answer.Get().punkVal->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(&found))) ||
        found == nullptr)
        return MetaStatusNoCollection;
    *enumerator = found;  // the slot's one reference; the answer releases its own
    return MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::ResetEnumerator(IEnumVARIANT** enumerator)
{
    if (enumerator == nullptr || *enumerator == nullptr)
        return MetaStatusNoCollection;
    return FAILED((*enumerator)->Reset()) ? MetaStatusNoCollection : MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::SkipElements(IEnumVARIANT** enumerator, std::uint32_t count)
{
    if (enumerator == nullptr || *enumerator == nullptr)
        return MetaStatusNoCollection;
    // S_FALSE, a skip past the end, is still a success.
    return FAILED((*enumerator)->Skip(count)) ? MetaStatusNoCollection : MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::NextElements(IEnumVARIANT** enumerator, std::uint32_t count, CItemList& items,
                                               std::uint32_t* fetched)
{
    if (enumerator == nullptr || *enumerator == nullptr)
        return MetaStatusNoCollection;
    VariantBlock elements(count);
    if (!elements && count != 0)
        return MetaStatusNoMemory;

    ULONG reported = kFetchedUnset;
    const HRESULT hr = count == 0 ? S_OK : (*enumerator)->Next(count, elements.Get(), &reported);
    // An enumerator may give fewer than asked even with S_OK: only what it
    // says it gave is read.
    const ULONG filled = FAILED(hr) || count == 0 ? 0 : FilledCount(reported, count);
    std::uint32_t appended = 0;
    for (ULONG at = 0; at < filled; ++at) {
        VARIANT& element = elements[at];
        CMetaObjectItem* item = MakeItemForPlainType(MetaTypeFromVarType(element.vt, nullptr));
        if (item == nullptr)
            continue;  // a type without an item: dropped
        ElementIntoItem(&element, item);
        items.push_back(item);
        ++appended;
    }
    if (fetched != nullptr)
        *fetched = appended;
    return FAILED(hr) ? MetaStatusBadType : MetaStatusOk;
}

MetaStatus CMetaObjectCOMHandler::CountElements(IEnumVARIANT** enumerator, std::uint32_t* count)
{
    if (enumerator == nullptr || *enumerator == nullptr || object == nullptr || count == nullptr)
        return MetaStatusNoCollection;

    CMethodInvokeStatus status;
    CMetaObjectItem* result = nullptr;
    CCOMMethodInvoke countCall(object, kCountDispid, MethodKindGet);
    const MetaStatus called = countCall.Execute(&status, &result);
    // Only a number that can be a count is one. A call that succeeds with no
    // item, with an item of another kind or with a negative number gives no
    // count, and the collection is counted by walking as if the call had failed.
    const auto* number = dynamic_cast<const CMetaObjectInt*>(result);
    const bool counted = called == MetaStatusOk && number != nullptr && number->value >= 0;
    if (counted)
        *count = static_cast<std::uint32_t>(number->value);
    if (result != nullptr) {
        result->Clear();  // an object item gives back its handler's use
        FreeItem(result);
    }
    if (counted)
        return MetaStatusOk;

    *count = 0;
    return CountByWalking(*enumerator, *count);
}

MetaStatus CMetaObjectCOMHandler::CloseEnumerator(IEnumVARIANT** enumerator)
{
    if (enumerator == nullptr || *enumerator == nullptr)
        return MetaStatusNoCollection;
    (*enumerator)->Release();
    *enumerator = nullptr;
    SetErrorText(this, "");
    return MetaStatusOk;
}
