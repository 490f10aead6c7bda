#pragma once
// The collection fixture's objects as the server file's entry points reach them.

#include <windows.h>
#include <objbase.h>

constexpr int kCollectionLibraryResource = 4;

// A new CollectionFixture, answering iid, whose one reference the caller owns; and those alive now.
HRESULT CreateCollectionFixture(REFIID iid, void** out);
LONG LiveCollectionObjects();
