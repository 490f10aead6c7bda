// An in-process server file with its type libraries. TYPELIB resource 1 is the
// catalogue fixture library, which nothing registers: the tests of the
// server-file road rely on that. Resource 2 is the call library, whose class
// CallFixture this file serves and registers; resources 3 and 4 are those of
// the array and collection fixtures.

#include "call_fixture.h"  // widl's header of call_fixture.idl

#include <olectl.h>
#include <oleauto.h>

#include <string>

#include "plugin/platform_handles.h"
#include "tests/servers/array_fixture_objects.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_objects.h"

using MetaObj::ComPtr;
using MetaObj::RegKey;

namespace {

// One static object; its references are locks on the server.
class CCallFixtureFactory : public IClassFactory {
public:
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
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        LockFixtureServer(true);
        return 2;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LockFixtureServer(false);
        return 1;
    }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = nullptr;
        if (outer != nullptr)
            return CLASS_E_NOAGGREGATION;
        return CreateCallFixture(iid, out);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override
    {
        LockFixtureServer(lock != FALSE);
        return S_OK;
    }
};

CCallFixtureFactory g_factory;

std::wstring GuidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

bool WriteClassesValue(const std::wstring& path, const wchar_t* name, const std::wstring& value)
{
    RegKey key;
    if (RegCreateKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.Put(),
                        nullptr) != ERROR_SUCCESS)
        return false;
    const auto bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
    return RegSetValueExW(key.Get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()), bytes) ==
           ERROR_SUCCESS;
}

std::wstring ClassKey()
{
    return L"CLSID\\" + GuidText(CLSID_CallFixture);
}

#ifdef _WIN64
constexpr SYSKIND kSysKind = SYS_WIN64;
#else
constexpr SYSKIND kSysKind = SYS_WIN32;
#endif

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
    if (IsEqualCLSID(classId, CLSID_CallFixture))
        return g_factory.QueryInterface(iid, out);
    const HRESULT collection = CollectionFixtureClassObject(classId, iid, out);
    if (collection != CLASS_E_CLASSNOTAVAILABLE)
        return collection;
    return GetArrayFixtureClassObject(classId, iid, out);
}

__declspec(dllexport) HRESULT __stdcall DllCanUnloadNow()
{
    return LiveFixtureObjects() == 0 && LiveCollectionObjects() == 0 && LiveArrayFixtureObjects() == 0 &&
                   !FixtureServerLocked()
               ? S_OK
               : S_FALSE;
}

// The class keys under HKEY_CLASSES_ROOT, and the call library of resource 2;
// the catalogue library of resource 1 stays unregistered.
__declspec(dllexport) HRESULT __stdcall DllRegisterServer()
{
    wchar_t serverPath[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(g_fixtureModule, serverPath, MAX_PATH);
    if (length == 0 || length == MAX_PATH)
        return SELFREG_E_CLASS;

    const std::wstring classKey = ClassKey();
    const std::wstring progId = FixtureValues::kProgId;
    const struct {
        std::wstring path;
        const wchar_t* name;
        std::wstring value;
    } rows[] = {
        {classKey, nullptr, L"CallFixture"},
        {classKey + L"\\InprocServer32", nullptr, serverPath},
        {classKey + L"\\InprocServer32", L"ThreadingModel", L"Both"},
        {classKey + L"\\ProgID", nullptr, progId},
        {classKey + L"\\TypeLib", nullptr, GuidText(LIBID_CallFixtureLib)},
        {classKey + L"\\Version", nullptr, L"1.0"},
        {progId, nullptr, L"CallFixture"},
        {progId + L"\\CLSID", nullptr, GuidText(CLSID_CallFixture)},
    };
    for (const auto& row : rows) {
        if (!WriteClassesValue(row.path, row.name, row.value))
            return SELFREG_E_CLASS;
    }

    wchar_t libraryPath[MAX_PATH + 4];
    ComPtr<ITypeLib> library;
    if (!CallLibraryPath(libraryPath, MAX_PATH + 4) ||
        FAILED(LoadTypeLibEx(libraryPath, REGKIND_NONE, library.Put())))
        return SELFREG_E_TYPELIB;
    if (FAILED(RegisterTypeLib(library.Get(), libraryPath, nullptr)))
        return SELFREG_E_TYPELIB;
    const HRESULT collections = RegisterCollectionFixture(serverPath);
    if (FAILED(collections))
        return collections;
    return RegisterArrayFixture(serverPath);
}

__declspec(dllexport) HRESULT __stdcall DllUnregisterServer()
{
    RegDeleteTreeW(HKEY_CLASSES_ROOT, ClassKey().c_str());
    RegDeleteTreeW(HKEY_CLASSES_ROOT, FixtureValues::kProgId);
    UnRegisterTypeLib(LIBID_CallFixtureLib, 1, 0, LOCALE_NEUTRAL, kSysKind);
    UnregisterArrayFixture();
    UnregisterCollectionFixture();
    return S_OK;
}

// Objects of the fixture alive now: after a scenario that freed everything it
// made, this is back where it started.
__declspec(dllexport) LONG __stdcall FixtureLiveObjects()
{
    return LiveFixtureObjects() + LiveCollectionObjects() + LiveArrayFixtureObjects();
}

}  // extern "C"
