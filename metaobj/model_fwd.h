#pragma once
// The records and items of the meta object model, as far as the handler's
// operations name them.

namespace MetaObj {
class CTypeDesc;
class CObjectInfo;
class CMethodInfo;
class CParamInfo;
class CMethodInvokeStatus;
class CMetaObjectItem;
class CMetaObjectSecurityInfo;
}  // namespace MetaObj

class CCOMMethodInvoke;
