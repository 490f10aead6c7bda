#include "invoke/method_invoke.h"

#include <windows.h>
#include <oleauto.h>

#include <cstring>
#include <string>
#include <vector>

#include "discovery/type_names.h"
#include "invoke/member_ids.h"
#include "invoke/variant_owner.h"
#include "metaobj/records.h"
#include "metaobj/scalar_items.h"
#include "platform/block_cache.h"
#include "platform/module_state.h"
#include "platform/platform_handles.h"
#include "platform/try_flag.h"
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

// Nodes of argument lists, kept for the next call's list. A host builds a call
// for each statement it runs, and each argument's node cost a heap trip each
// way. Nodes change lists by splicing, so any of them, whoever made it, stays
// a node of the run-time's heap that any list's owner may free. A thread that
// finds the store busy doesn't wait: it goes to the heap as before.
class KeptNodes {
public:
    KeptNodes() { AddDrain(&Drain); }

    // Appends the entries of list to into, on kept nodes as far as there are
    // some. Throws std::bad_alloc, and then into is as it was.
    void Append(CItemList& into, const CItemList& list)
    {
        auto source = list.begin();
        CItemList taken;
        if (!list.empty() && flag.TryEnter()) {
            auto end = nodes.begin();
            for (std::size_t count = 0; count < list.size() && end != nodes.end(); ++count)
                ++end;
            taken.splice(taken.end(), nodes, nodes.begin(), end);
            flag.Leave();
        }
        for (CMetaObjectItem*& entry : taken)
            entry = *source++;
        taken.insert(taken.end(), source, list.end());
        into.splice(into.end(), taken);
    }

    // Takes the nodes of list, which is left empty, unless that would keep too many.
    void Keep(CItemList& list) noexcept
    {
        if (list.empty() || !flag.TryEnter())
            return;
        if (nodes.size() + list.size() <= kMostKept)
            nodes.splice(nodes.end(), list);
        flag.Leave();
    }

private:
    static constexpr std::size_t kMostKept = 512;
    static void Drain() noexcept;

    CTryFlag flag;
    CItemList nodes;
};

// The one KeptNodes, made early and never ended: the binary's last drain frees
// its nodes, after every call object that could still give some back.
union KeptNodesStore {
    KeptNodesStore() : kept() {}
    ~KeptNodesStore() {}
    KeptNodes kept;
} g_keptNodes __attribute__((init_priority(101)));

void KeptNodes::Drain() noexcept
{
    // Called where no call is being made or freed: at the end, or before a count.
    KeptNodes& kept = g_keptNodes.kept;
    kept.flag.Enter();
    CItemList freed;
    freed.splice(freed.end(), kept.nodes);
    kept.flag.Leave();
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
    if (auto* enumeration = ItemAs<CMetaObjectEnum>(item))
        value = enumeration->value;
    else if (auto* number = ItemAs<CMetaObjectInt>(item))
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
// A call of a few arguments, as most are, keeps them in the frame itself.
struct CallFrame {
    explicit CallFrame(std::size_t count) : count(count)
    {
        // Zeroed VARIANTs are empty ones: VT_EMPTY is 0.
        std::memset(&result, 0, sizeof result);
        if (count == 0)
            return;
        arguments = count <= kInFrame ? inFrame : new VARIANT[count];
        std::memset(arguments, 0, sizeof(VARIANT) * count);
    }
    ~CallFrame()
    {
        for (std::size_t at = 0; at < count; ++at)
            ReleaseArgument(arguments[at]);
        ClearVariant(result);
        if (arguments != inFrame)
            delete[] arguments;
    }
    CallFrame(const CallFrame&) = delete;
    CallFrame& operator=(const CallFrame&) = delete;

    static constexpr std::size_t kInFrame = 8;
    std::size_t count;
    VARIANT* arguments = nullptr;
    VARIANT result;
    VARIANT inFrame[kInFrame];
};

// Bytes of what a by-reference argument's cell owns for the call, where this
// module chose to own it: objects, VARIANTs and arrays. A text cell's BSTR is
// freed after every call, as the release of the call frame has always done,
// so a server that leaves garbage there on failure is not guarded against.
// 0 for cells of plain values, text cells and no cell.
std::size_t OwnedCellBytes(const VARIANT& argument)
{
    const VARTYPE vt = argument.vt;
    if (!(vt & VT_BYREF) || vt == (VT_RECORD | VT_BYREF) || !argument.byref)
        return 0;
    if (vt & VT_ARRAY)
        return sizeof(SAFEARRAY*);
    switch (vt & ~VT_BYREF) {
    case VT_VARIANT: return sizeof(VARIANT);
    case VT_DISPATCH:
    case VT_UNKNOWN: return sizeof(IUnknown*);
    default: return 0;
    }
}

// The owned contents of each cell as the call went out. A failed callee must
// leave a cell as it was or holding something freeable; one that leaves
// garbage can't be told from one that freed and replaced, so after a failure a
// cell that changed is given up: its contents may leak, but are never freed.
class SentCells {
public:
    // Only owned cells are kept, so a call of plain values allocates nothing here.
    explicit SentCells(const VARIANT* arguments, std::size_t count)
    {
        for (std::size_t at = 0; at < count; ++at) {
            const std::size_t bytes = OwnedCellBytes(arguments[at]);
            if (bytes == 0)
                continue;
            Cell cell{at, bytes, {}};
            std::memcpy(cell.held, arguments[at].byref, bytes);
            sent.push_back(cell);
        }
    }
    void GiveUpChanged(VARIANT* arguments) const
    {
        for (const Cell& cell : sent) {
            void* now = arguments[cell.at].byref;
            if (std::memcmp(cell.held, now, cell.bytes) != 0)
                std::memset(now, 0, cell.bytes);  // a zeroed VARIANT is VT_EMPTY
        }
    }

private:
    struct Cell {
        std::size_t at;
        std::size_t bytes;
        unsigned char held[sizeof(VARIANT)];
    };
    std::vector<Cell> sent;
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
    dispid = ResolveMemberName(dispatch, name.IsEmpty() ? L"" : name.GetWide());
}

CCOMMethodInvoke::CCOMMethodInvoke(IDispatch* dispatch, DISPID dispid, MethodKind kind)
    : dispatch(dispatch), dispid(dispid), kind(kind)
{
}

CCOMMethodInvoke::~CCOMMethodInvoke()
{
    g_keptNodes.kept.Keep(params);
}

MetaStatus CCOMMethodInvoke::SetParams(const CItemList& list)
{
    try {
        g_keptNodes.kept.Append(params, list);
    } catch (...) {
        return MetaStatusInvokeFailed;  // no room for the list: nothing was added
    }
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

        const SentCells sent(frame.arguments, frame.count);
        const HRESULT hr = dispatch->Invoke(dispid, IID_NULL, GetUserDefaultLCID(), call.flags, &arguments,
                                            &frame.result, &exception, &argumentError);
        if (FAILED(hr)) {
            // The result is cleared all the same: a failing callee leaves it
            // empty or valid, and what it left valid must not leak.
            sent.GiveUpChanged(frame.arguments);
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
