// Arrays between CMetaObjectArray and SAFEARRAY. Until the array translation
// is built, an array argument has no translation, so the call ends before
// Invoke, and an array result gives no item.

#include "invoke/method_invoke.h"

#include "metaobj/compound_items.h"

using namespace MetaObj;

bool CCOMMethodInvoke::ArrayItemToVariant(CMetaObjectArray*, VARIANT&)
{
    return false;
}

CMetaObjectItem* CCOMMethodInvoke::ArrayVariantToItem(const VARIANT&)
{
    return nullptr;
}
