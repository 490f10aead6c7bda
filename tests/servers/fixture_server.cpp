// An in-process server file with its type libraries. TYPELIB resource 1 is the
// catalogue fixture library, which nothing registers: the tests of the
// server-file road rely on that. Resources 2 to 5 are the libraries of the
// call, array, collection and hostile fixtures, whose classes this file serves
// and registers. Built with FIXTURE_LOCAL_SERVER, the same objects are served
// from an executable, in a process of their own (see the end of this file).

#include "array_fixture.h"  // widl's headers of the libraries
#include "call_fixture.h"
#include "collection_fixture.h"
#include "hostile_fixture.h"

#include <olectl.h>
#include <oleauto.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/platform_handles.h"
#include "tests/servers/array_fixture_objects.h"
#include "tests/servers/call_fixture_objects.h"
#include "tests/servers/call_fixture_values.h"
#include "tests/servers/collection_fixture_objects.h"
#include "tests/servers/collection_fixture_values.h"
#include "tests/servers/hostile_fixture_objects.h"
#include "tests/servers/hostile_fixture_values.h"
#include "tests/support/fixture_server.h"

using MetaObj::ComPtr;

namespace {

using CreateFn = HRESULT (*)(REFIID iid, void** out);
volatile LONG g_serverLocks = 0;
volatile DWORD g_createdAt = 0;

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
        g_createdAt = GetTickCount();
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

#ifndef FIXTURE_LOCAL_SERVER
std::wstring GuidText(REFGUID guid)
{
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

// The class keys under HKEY_CLASSES_ROOT.
HRESULT RegisterClassKeys(const FixtureClass& fixture, const CLSID& classId, const std::wstring& progId,
                          const wchar_t* serverKey, const std::wstring& server, const wchar_t* threading)
{
    const std::wstring classKey = L"CLSID\\" + GuidText(classId);
    const struct {
        std::wstring path;
        const wchar_t* name;
        std::wstring value;
    } rows[] = {
        {classKey, nullptr, fixture.name},
        {classKey + serverKey, nullptr, server},
        {classKey + serverKey, L"ThreadingModel", threading ? threading : L""},
        {classKey + L"\\ProgID", nullptr, progId},
        {classKey + L"\\TypeLib", nullptr, GuidText(fixture.libraryId)},
        {classKey + L"\\Version", nullptr, L"1.0"},
        {progId, nullptr, fixture.name},
        {progId + L"\\CLSID", nullptr, GuidText(classId)},
    };
    for (const auto& row : rows) {
        if (row.value.empty())
            continue;
        const auto bytes = static_cast<DWORD>((row.value.size() + 1) * sizeof(wchar_t));
        if (RegSetKeyValueW(HKEY_CLASSES_ROOT, row.path.c_str(), row.name, REG_SZ, row.value.c_str(), bytes) !=
            ERROR_SUCCESS)
            return SELFREG_E_CLASS;
    }
    return S_OK;
}

// The class keys and the class's library.
HRESULT RegisterClass(const FixtureClass& fixture, const wchar_t* serverPath)
{
    const HRESULT keys =
        RegisterClassKeys(fixture, fixture.classId, fixture.progId, L"\\InprocServer32", serverPath, L"Both");
    if (FAILED(keys))
        return keys;
    wchar_t libraryPath[MAX_PATH + 12];
    ComPtr<ITypeLib> library;
    if (!ServerLibraryPath(fixture.libraryResource, libraryPath, MAX_PATH + 12) ||
        FAILED(LoadTypeLibEx(libraryPath, REGKIND_NONE, library.Put())))
        return SELFREG_E_TYPELIB;
    return SUCCEEDED(RegisterTypeLib(library.Get(), libraryPath, nullptr)) ? S_OK : SELFREG_E_TYPELIB;
}
#endif

LONG AllLiveObjects()
{
    return LiveFixtureObjects() + LiveCollectionObjects() + LiveArrayFixtureObjects() + LiveHostileObjects();
}

}  // namespace

#ifndef FIXTURE_LOCAL_SERVER

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
    return AllLiveObjects();
}

__declspec(dllexport) HRESULT __stdcall DllCanUnloadNow()
{
    return FixtureLiveObjects() == 0 && g_serverLocks == 0 ? S_OK : S_FALSE;
}

// The libraries of resources 2 to 5 (the catalogue library of resource 1 stays
// unregistered), and the classes again as served by fixture_local.exe beside this file.
__declspec(dllexport) HRESULT __stdcall DllRegisterServer()
{
    wchar_t serverPath[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(g_fixtureModule, serverPath, MAX_PATH);
    if (length == 0 || length == MAX_PATH)
        return SELFREG_E_CLASS;
    const std::wstring path = serverPath;
    const std::wstring local = L"\"" + path.substr(0, path.find_last_of(L'\\') + 1) + L"fixture_local.exe\"";
    for (const FixtureClass& fixture : g_classes) {
        HRESULT hr = RegisterClass(fixture, serverPath);
        const std::wstring suffix(LocalServer::kSuffix, LocalServer::kSuffix + std::strlen(LocalServer::kSuffix));
        if (SUCCEEDED(hr))
            hr = RegisterClassKeys(fixture, LocalServer::ClassId(fixture.classId), fixture.progId + suffix,
                                   L"\\LocalServer32", local, nullptr);
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

}  // extern "C"
#else

namespace {

// Serves the fixtures under their out-of-process class ids or, given a class
// id, the other kind: the call and collection fixtures under that one.
void ServeClasses(const CLSID* otherId)
{
    using namespace LocalServer;
    const bool other = otherId != nullptr;
    std::vector<DWORD> cookies;
    for (FixtureClass& fixture : g_classes) {
        const bool collection = &fixture.classId == &CLSID_CollectionFixture;
        if (other && !collection && &fixture.classId != &CLSID_CallFixture)
            continue;
        DWORD cookie = 0;
        CLSID id = other ? *otherId : ClassId(fixture.classId);
        id.Data1 += other && collection ? 1 : 0;
        if (SUCCEEDED(CoRegisterClassObject(id, &fixture.factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie)))
            cookies.push_back(cookie);
    }
    // Only the first kind tells its count; the other is started and killed by a test.
    HandleOwner ask(other ? nullptr : CreateEventW(nullptr, FALSE, FALSE, kAskEvent));
    HandleOwner answer(other ? nullptr : CreateEventW(nullptr, FALSE, FALSE, kAnswerEvent));
    HandleOwner mapping(other ? nullptr
                              : CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG),
                                                   kLiveBlock));
    LONG* live = mapping ? static_cast<LONG*>(MapViewOfFile(mapping.Get(), FILE_MAP_WRITE, 0, 0, sizeof(LONG)))
                         : nullptr;
    // It pumps messages, and ends once it has had no object for a few seconds, or nothing new for longer
    // (the platform's marshaler keeps references on some objects it carried), so no test leaves it behind.
    constexpr DWORD kIdleExit = 3000;
    constexpr DWORD kAbandonedExit = 20000;
    DWORD busyAt = GetTickCount();
    HANDLE waited = ask.Get();
    for (;;) {
        const DWORD woke = MsgWaitForMultipleObjects(waited ? 1 : 0, &waited, FALSE, 250, QS_ALLINPUT);
        if (woke == WAIT_OBJECT_0 && waited && live) {
            *live = AllLiveObjects();
            SetEvent(answer.Get());
        }
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&message);
        if (AllLiveObjects() != 0 && GetTickCount() - g_createdAt < kAbandonedExit)
            busyAt = GetTickCount();
        else if (GetTickCount() - busyAt > kIdleExit)
            break;
    }
    for (DWORD cookie : cookies)
        CoRevokeClassObject(cookie);
    if (live)
        UnmapViewOfFile(live);
}

}  // namespace

int WINAPI WinMain(HINSTANCE instance, HINSTANCE, LPSTR, int)
{
    g_fixtureModule = instance;
    const std::wstring line = GetCommandLineW();
    const std::size_t other = line.find(L" other {");
    CLSID otherId = {};
    if (other != std::wstring::npos && FAILED(CLSIDFromString(line.substr(other + 7, 38).c_str(), &otherId)))
        return 1;
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 1;
    ServeClasses(other != std::wstring::npos ? &otherId : nullptr);
    CoUninitialize();
    return 0;
}

#endif
