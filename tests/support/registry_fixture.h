#pragma once
// A class registration under a fresh class identifier, written into the test
// prefix's HKEY_CLASSES_ROOT and removed again with everything below it.

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

class ScratchClass {
public:
    ScratchClass()
    {
        GUID guid;
        CoCreateGuid(&guid);
        char text[64];
        std::snprintf(text, sizeof text, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                      static_cast<unsigned long>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                      guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
        braced = text;
        bare = braced.substr(1, 36);
        classKey = "CLSID\\" + braced;
        Write(classKey, nullptr, "");
    }
    ~ScratchClass()
    {
        for (const std::string& path : written)
            RegDeleteTreeA(HKEY_CLASSES_ROOT, path.c_str());
    }
    ScratchClass(const ScratchClass&) = delete;
    ScratchClass& operator=(const ScratchClass&) = delete;

    // Writes a value (null name: the default) under a path below HKEY_CLASSES_ROOT.
    // Paths outside the class key are removed at the end as well.
    void Write(const std::string& path, const char* name, const std::string& value, DWORD type = REG_SZ)
    {
        HKEY key = nullptr;
        if (RegCreateKeyExA(HKEY_CLASSES_ROOT, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
            ERROR_SUCCESS)
            return;
        RegSetValueExA(key, name, 0, type, reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>(value.size() + 1));
        RegCloseKey(key);
        // What goes at the end is the tree of the path's first two parts, such as CLSID\{...}.
        const std::size_t first = path.find('\\');
        const std::string top = first == std::string::npos ? path : path.substr(0, path.find('\\', first + 1));
        if (std::find(written.begin(), written.end(), top) == written.end())
            written.push_back(top);
    }
    void WriteClass(const std::string& subkey, const char* name, const std::string& value, DWORD type = REG_SZ)
    {
        Write(subkey.empty() ? classKey : classKey + "\\" + subkey, name, value, type);
    }

    std::string braced, bare, classKey;

private:
    std::vector<std::string> written;
};
