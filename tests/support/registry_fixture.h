#pragma once
// A class registration under a fresh class identifier, written into the test
// prefix's HKEY_CLASSES_ROOT and removed again with everything below it.

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <string>
#include <vector>

class ScratchClass {
public:
    ScratchClass()
    {
        GUID guid;
        CoCreateGuid(&guid);
        wchar_t text[40] = {};
        StringFromGUID2(guid, text, 40);
        braced.assign(text, text + 38);  // the braced form is ASCII
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

    // Writes a value (null name: the default) below HKEY_CLASSES_ROOT; its tree goes at the end.
    void Write(const std::string& path, const char* name, const std::string& value, DWORD type = REG_SZ)
    {
        HKEY key = nullptr;
        if (RegCreateKeyExA(HKEY_CLASSES_ROOT, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
            ERROR_SUCCESS)
            return;
        RegSetValueExA(key, name, 0, type, reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>(value.size() + 1));
        RegCloseKey(key);
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
