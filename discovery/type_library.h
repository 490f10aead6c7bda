#pragma once
// Finding and loading the type library of a class, and picking out the type
// information that describes it.

#include <oaidl.h>

#include <vector>

#include "platform/platform_handles.h"

namespace MetaObj {

using CTypeInfoList = std::vector<ComPtr<ITypeInfo>>;

// The highest registered version of a library named by its identifier, with or
// without braces; null when none loads.
ComPtr<ITypeLib> LoadRegisteredTypeLib(const char* libraryId);

// Appends the dispatch interfaces of the class named by objectName: those its
// coclass implements, in order, or the interface itself when the name is one.
// typeLibAttribute, when not empty, names the library and wins over the registry.
// Gives the size of the list; 0 when no library could be loaded.
std::size_t CollectTypeInfos(const char* objectName, CTypeInfoList& list, const char* typeLibAttribute);

}  // namespace MetaObj
