#pragma once
// The collection and hostile fixtures' objects as the server file's entry
// points reach them.

#include <windows.h>
#include <objbase.h>
#include <oaidl.h>


constexpr int kCollectionLibraryResource = 4;

// A new CollectionFixture, answering iid; the caller owns the one reference.
HRESULT CreateCollectionFixture(REFIID iid, void** out);
// Objects of the collection fixture alive now: makers, collections, enumerators, elements.
LONG LiveCollectionObjects();

