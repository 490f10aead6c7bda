// An in-process server file with its type libraries. TYPELIB resource 1 is the
// catalogue fixture library, which nothing registers: the tests of the
// server-file road rely on that. Resources 2 to 5 are the libraries of the
// call, array, collection and hostile fixtures, whose classes this file serves
// and registers.

#include "array_fixture.h"  // widl's headers of the libraries
#include "call_fixture.h"
#include "collection_fixture.h"
#include "hostile_fixture.h"

#include <olectl.h>
#include <oleauto.h>

#include <string>

#include "platform/platform_handles.h"
#include "tests/servers/array_fixture_objects.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_objects.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/servers/hostile_fixture_objects.h"
#include "tests/servers/hostile_fixture_values.h"

using MetaObj::ComPtr;

namespace {

using CreateFn = HRESULT (*)(REFIID iid, void** out);
volatile LONG g_serverLocks = 0;

// One static object a class; its references are locks on the server.
class CFixtureFactory : public IClassFactory {
public:
    explicit CFixtureFactory(CreateFn create) : create(create) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory)) {
            *out = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&g_serverLocks), 2; }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&g_serverLocks), 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        if (outer != nullptr)
            return CLASS_E_NOAGGREGATION;
        return create(iid, out);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override
    {
        lock ? AddRef() : Release();
        return S_OK;
    }

private:
    CreateFn create;
};

struct FixtureClass {
    const CLSID& classId;
    const wchar_t* name;
    const wchar_t* progId;
    const GUID& libraryId;
    int libraryResource;
    CFixtureFactory factory;
};

FixtureClass g_classes[] = {
    {CLSID_CallFixture, L"CallFixture", FixtureValues::kProgId, LIBID_CallFixtureLib, kCallLibraryResource,
     CFixtureFactory(CreateCallFixture)},
    {CLSID_ArrayFixture, L"ArrayFixture", kArrayFixtureProgId, LIBID_ArrayFixtureLib, kArrayLibraryResource,
     CFixtureFactory(CreateArrayFixture)},
    {CLSID_CollectionFixture, L"CollectionFixture", CollectionValues::kProgId, LIBID_CollectionFixtureLib,
     kCollectionLibraryResource, CFixtureFactory(CreateCollectionFixture)},
    {CLSID_HostileFixture, L"HostileFixture", HostileValues::kProgId, LIBID_HostileFixtureLib,
     kHostileLibraryResource, CFixtureFactory(CreateHostileFixture)},
};

std::wstring GuidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

// The class keys under HKEY_CLASSES_ROOT, and the class's library.
HRESULT RegisterClass(const FixtureClass& fixture, const wchar_t* serverPath)
{
    const std::wstring classKey = L"CLSID\\" + GuidText(fixture.classId);
    const std::wstring progId = fixture.progId;
    const struct {
        std::wstring path;
        const wchar_t* name;
        std::wstring value;
    } rows[] = {
        {classKey, nullptr, fixture.name},
        {classKey + L"\\InprocServer32", nullptr, serverPath},
        {classKey + L"\\InprocServer32", L"ThreadingModel", L"Both"},
        {classKey + L"\\ProgID", nullptr, progId},
        {classKey + L"\\TypeLib", nullptr, GuidText(fixture.libraryId)},
        {classKey + L"\\Version", nullptr, L"1.0"},
        {progId, nullptr, fixture.name},
        {progId + L"\\CLSID", nullptr, GuidText(fixture.classId)},
    };
    for (const auto& row : rows) {
        const auto bytes = static_cast<DWORD>((row.value.size() + 1) * sizeof(wchar_t));
        if (RegSetKeyValueW(HKEY_CLASSES_ROOT, row.path.c_str(), row.name, REG_SZ, row.value.c_str(), bytes) !=
            ERROR_SUCCESS)
            return SELFREG_E_CLASS;
    }
    wchar_t libraryPath[MAX_PATH + 12];
    ComPtr<ITypeLib> library;
    if (!ServerLibraryPath(fixture.libraryResource, libraryPath, MAX_PATH + 12) ||
        FAILED(LoadTypeLibEx(libraryPath, REGKIND_NONE, library.Put())))
        return SELFREG_E_TYPELIB;
    return SUCCEEDED(RegisterTypeLib(library.Get(), libraryPath, nullptr)) ? S_OK : SELFREG_E_TYPELIB;
}

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_ATTACH) {
        g_fixtureModule = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

__declspec(dllexport) HRESULT __stdcall DllGetClassObject(REFCLSID classId, REFIID iid, void** out)
{
    if (out == nullptr)
        return E_POINTER;
    *out = nullptr;
    for (FixtureClass& fixture : g_classes) {
        if (IsEqualCLSID(classId, fixture.classId))
            return fixture.factory.QueryInterface(iid, out);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

// Objects of the fixture alive now: after a scenario that freed everything it
// made, this is back where it started.
__declspec(dllexport) LONG __stdcall FixtureLiveObjects()
{
    return LiveFixtureObjects() + LiveCollectionObjects() + LiveArrayFixtureObjects() + LiveHostileObjects();
}

__declspec(dllexport) HRESULT __stdcall DllCanUnloadNow()
{
    return FixtureLiveObjects() == 0 && g_serverLocks == 0 ? S_OK : S_FALSE;
}

// The libraries of resources 2 to 5; the catalogue library of resource 1
// stays unregistered.
__declspec(dllexport) HRESULT __stdcall DllRegisterServer()
{
    wchar_t serverPath[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(g_fixtureModule, serverPath, MAX_PATH);
    if (length == 0 || length == MAX_PATH)
        return SELFREG_E_CLASS;
    for (const FixtureClass& fixture : g_classes) {
        const HRESULT hr = RegisterClass(fixture, serverPath);
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

}  // extern "C"
