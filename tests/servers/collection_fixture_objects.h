#pragma once
// The collection fixture's objects as the server file's entry points reach them.

#include <windows.h>
#include <objbase.h>

// The class object of CollectionFixture; CLASS_E_CLASSNOTAVAILABLE for any other class.
HRESULT CollectionFixtureClassObject(REFCLSID classId, REFIID iid, void** out);

// Objects of the collection fixture alive now: makers, collections, enumerators, elements.
LONG LiveCollectionObjects();

// The class keys under HKEY_CLASSES_ROOT and the collection library, TYPELIB resource 4.
HRESULT RegisterCollectionFixture(const wchar_t* serverPath);
void UnregisterCollectionFixture();
