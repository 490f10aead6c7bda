#include "invoke/method_invoke.h"

#include <windows.h>
#include <oleauto.h>
#include <dispex.h>

#include <cstring>
#include <string>

#include "discovery/type_names.h"
#include "invoke/variant_owner.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "plugin/platform_handles.h"
#include "plugin/module_state.h"
#include "resources/string_ids.h"

using namespace MetaObj;

namespace {

constexpr int kSourceChars = 50;
constexpr int kValidationChars = 100;
constexpr int kSucceededChars = 128;

// Texts of the string table; the table can't change while the module is
// loaded, so each is read once.
const CMetaString& SucceededText()
{
    static const CMetaString text(LoadModuleString(IDS_CALL_SUCCEEDED, kSucceededChars).c_str());
    return text;
}

const CMetaString& ValidationSourceText()
{
    static const CMetaString text(LoadModuleString(IDS_PARAM_VALIDATION_ERROR, kSourceChars).c_str());
    return text;
}

const CMetaString& IllegalEnumText()
{
    static const CMetaString text(LoadModuleString(IDS_ILLEGAL_ENUM_VALUE, kValidationChars).c_str());
    return text;
}

struct KindFlags {
    WORD flags;
    bool namesPutArgument;
};

KindFlags FlagsOf(MethodKind kind)
{
    switch (kind) {
    case MethodKindGet: return {DISPATCH_PROPERTYGET, false};
    case MethodKindSet: return {DISPATCH_PROPERTYPUT, true};
    case MethodKindSetRef: return {DISPATCH_PROPERTYPUTREF, true};
    default: return {DISPATCH_METHOD, false};
    }
}

// Only enumerations are checked: an in or in/out value must be one of its type's.
bool PassesValidation(CMetaObjectItem* item)
{
    if (item->GetDirection() == 1)
        return true;
    const CTypeDesc& type = item->GetTypeDesc();
    if (type.type != MetaTypeEnum)
        return true;
    std::int32_t value = 0;
    if (auto* enumeration = dynamic_cast<CMetaObjectEnum*>(item))
        value = enumeration->value;
    else if (auto* number = dynamic_cast<CMetaObjectInt*>(item))
        value = number->value;
    else
        return false;
    if (!type.enumValues)
        return false;
    for (const CEnumValue* entry : *type.enumValues) {
        if (entry && entry->value == value)
            return true;
    }
    return false;
}

// The locals of one call. Released in a fixed order: the arguments from the
// first of the block upward, then the result, then the block itself.
struct CallFrame {
    explicit CallFrame(std::size_t count) : count(count)
    {
        std::memset(&result, 0, sizeof result);
        VariantInit(&result);
        if (count == 0)
            return;
        arguments = new VARIANT[count];
        std::memset(arguments, 0, sizeof(VARIANT) * count);
        for (std::size_t at = 0; at < count; ++at)
            VariantInit(&arguments[at]);
    }
    ~CallFrame()
    {
        for (std::size_t at = 0; at < count; ++at)
            ReleaseArgument(arguments[at]);
        VariantClear(&result);
        delete[] arguments;
    }
    CallFrame(const CallFrame&) = delete;
    CallFrame& operator=(const CallFrame&) = delete;

    std::size_t count;
    VARIANT* arguments = nullptr;
    VARIANT result;
};

// Moves the texts of a failed call into the record; empty texts change nothing.
void TakeExceptionTexts(EXCEPINFO& info, CMethodInvokeStatus& status)
{
    Bstr source(info.bstrSource);
    Bstr description(info.bstrDescription);
    Bstr helpFile(info.bstrHelpFile);
    info.bstrSource = info.bstrDescription = info.bstrHelpFile = nullptr;
    if (SysStringLen(source.Get()) > 0)
        status.source = CMetaString(source.Get());
    if (SysStringLen(description.Get()) > 0)
        status.description = CMetaString(description.Get());
}

}  // namespace

CCOMMethodInvoke::CCOMMethodInvoke(IDispatch* dispatch, const CMetaString& methodKey) : dispatch(dispatch)
{
    if (!dispatch)
        return;
    CMetaString name;
    MethodKind split = MethodKindInvoke;
    SplitMethodKey(methodKey, name, split);
    kind = split;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name.IsEmpty() ? L"" : name.GetWide())};
    DISPID found = -1;
    if (SUCCEEDED(dispatch->GetIDsOfNames(IID_NULL, names, 1, GetUserDefaultLCID(), &found))) {
        dispid = found;
        return;
    }
    // Some script engines' objects answer names only through IDispatchEx.
    ComPtr<IDispatchEx> extended;
    if (SUCCEEDED(dispatch->QueryInterface(__uuidof(IDispatchEx), extended.PutVoid())) && extended) {
        Bstr text(AllocBstr(names[0], false));
        if (SUCCEEDED(extended->GetDispID(text.Get(), fdexNameCaseInsensitive, &found)))
            dispid = found;
    }
}

CCOMMethodInvoke::CCOMMethodInvoke(IDispatch* dispatch, DISPID dispid, MethodKind kind)
    : dispatch(dispatch), dispid(dispid), kind(kind)
{
}

CCOMMethodInvoke::~CCOMMethodInvoke() = default;

MetaStatus CCOMMethodInvoke::SetParams(const CItemList& list)
{
    params.insert(params.end(), list.begin(), list.end());
    return MetaStatusOk;
}

MetaStatus CCOMMethodInvoke::SetResultType(const CTypeDesc& type)
{
    resultType.Assign(type);
    return MetaStatusOk;
}

MetaStatus CCOMMethodInvoke::Execute(CMethodInvokeStatus* status, CMetaObjectItem** result)
{
    if (dispid == -1 || !dispatch)
        return MetaStatusInvokeFailed;
    CMethodInvokeStatus unused;
    CMethodInvokeStatus& record = status ? *status : unused;
    try {
        const KindFlags call = FlagsOf(kind);
        DISPID putName = DISPID_PROPERTYPUT;
        DISPPARAMS arguments{};
        arguments.rgdispidNamedArgs = call.namesPutArgument ? &putName : nullptr;
        arguments.cNamedArgs = call.namesPutArgument ? 1 : 0;
        EXCEPINFO exception{};
        UINT argumentError = 0;

        CallFrame frame(params.size());
        arguments.rgvarg = frame.arguments;
        arguments.cArgs = static_cast<UINT>(params.size());

        // The first parameter lies last in the block, as DISPPARAMS wants it.
        std::size_t index = 0;
        for (CMetaObjectItem* item : params) {
            VARIANT& slot = frame.arguments[frame.count - 1 - index++];
            if (!item)
                continue;
            if (!PassesValidation(item)) {
                record.source = ValidationSourceText();
                record.code = 65535;
                record.description = IllegalEnumText();
                return MetaStatusInvokeFailed;
            }
            if (!ItemToVariant(item, slot))
                return MetaStatusInvokeFailed;
        }

        const HRESULT hr = dispatch->Invoke(dispid, IID_NULL, GetUserDefaultLCID(), call.flags, &arguments,
                                            &frame.result, &exception, &argumentError);
        if (FAILED(hr)) {
            record.code = exception.scode == E_NOTIMPL ? 1 : 65535;
            EXCEPINFO filled{};
            EXCEPINFO* read = &exception;
            if (exception.pfnDeferredFillIn && SUCCEEDED(exception.pfnDeferredFillIn(&filled)))
                read = &filled;
            TakeExceptionTexts(*read, record);
            // Whichever copy was not read still owns its texts.
            TakeExceptionTexts(read == &filled ? exception : filled, unused);
            return MetaStatusInvokeFailed;
        }

        index = 0;
        for (CMetaObjectItem* item : params) {
            VARIANT& slot = frame.arguments[frame.count - 1 - index++];
            if (item && (item->GetDirection() == 1 || item->GetDirection() == 2))
                VariantIntoItem(slot, item);
        }
        if (result)
            *result = frame.result.vt != VT_EMPTY ? VariantToItem(frame.result) : nullptr;
        // A record used for call after call already holds the text: the same
        // value, without a new copy each time.
        if (record.description.Compare(SucceededText().GetWide(), 0) != 0)
            record.description = SucceededText();
        record.code = 1;
        return MetaStatusOk;
    } catch (...) {
        return MetaStatusInvokeFailed;
    }
}
