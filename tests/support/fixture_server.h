#pragma once
// The registered call fixture server, loaded from the file its class key names
// and kept loaded while this lives, so its count of live objects can be read
// before the first object and after the last.

#include <windows.h>

#include <string>

#include "tests/servers/call_fixture_values.h"

class FixtureServer {
public:
    FixtureServer()
    {
        const std::string key = std::string("CLSID\\") + FixtureValues::kClassId + "\\InprocServer32";
        char path[MAX_PATH] = {};
        LONG size = sizeof path;
        if (RegQueryValueA(HKEY_CLASSES_ROOT, key.c_str(), path, &size) == ERROR_SUCCESS)
            module = LoadLibraryA(path);
        if (module)
            liveObjects = reinterpret_cast<LiveObjectsFn>(
                reinterpret_cast<void*>(GetProcAddress(module, "FixtureLiveObjects")));
    }
    ~FixtureServer()
    {
        if (module)
            FreeLibrary(module);
    }
    FixtureServer(const FixtureServer&) = delete;
    FixtureServer& operator=(const FixtureServer&) = delete;

    bool Loaded() const { return liveObjects != nullptr; }
    // -1 when the server could not be loaded.
    long LiveObjects() const { return liveObjects ? liveObjects() : -1; }

private:
    using LiveObjectsFn = LONG(__stdcall*)();
    HMODULE module = nullptr;
    LiveObjectsFn liveObjects = nullptr;
};
