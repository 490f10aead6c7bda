#pragma once
// Replaces one imported function of a loaded module through its import address table, for
// the scope, so a test records what reaches a platform call that can't act here.

#include <windows.h>

#include <cstring>

class ImportPatch {
public:
    ImportPatch(HMODULE module, const char* dllName, const char* functionName, void* replacement)
    {
        auto* base = reinterpret_cast<BYTE*>(module);
        auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
        const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        if (directory.VirtualAddress == 0)
            return;
        for (auto* entry = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress); entry->Name;
             ++entry) {
            if (_stricmp(reinterpret_cast<const char*>(base + entry->Name), dllName) != 0)
                continue;
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + entry->OriginalFirstThunk);
            auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + entry->FirstThunk);
            for (; names->u1.AddressOfData; ++names, ++addresses) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                    continue;
                auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                if (std::strcmp(reinterpret_cast<const char*>(byName->Name), functionName) != 0)
                    continue;
                slot = reinterpret_cast<void**>(&addresses->u1.Function);
                original = *slot;
                Write(replacement);
                return;
            }
        }
    }
    ~ImportPatch()
    {
        if (slot)
            Write(original);
    }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    bool Applied() const { return slot != nullptr; }

private:
    void Write(void* value)
    {
        DWORD old = 0;
        VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
        *slot = value;
        VirtualProtect(slot, sizeof(void*), old, &old);
    }

    void** slot = nullptr;
    void* original = nullptr;
};
