#pragma once
// The records and items of the meta object model, as far as the handler's
// operations name them.

#include <list>

namespace MetaObj {
class CTypeDesc;
class CObjectInfo;
class CMethodInfo;
class CParamInfo;
class CMethodInvokeStatus;
class CMetaObjectItem;
class CMetaObjectSecurityInfo;
class CMetaObjectHandler;

// Items handed between host and handler; whoever holds the list frees the items.
using CItemList = std::list<CMetaObjectItem*>;
}  // namespace MetaObj

class CCOMMethodInvoke;
