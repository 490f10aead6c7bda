// Time to describe a class through the module (load the catalogue, then every
// method and parameter description), against a plain walk of the same type
// information with the COM API, in the same run. Prints the ratio.

#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "contract/handler_base.h"
#include "host/module_loader.h"
#include "host/reference_host.h"
#include "metaobj/records.h"

namespace {

constexpr int kRounds = 20;
constexpr std::uint32_t kAllFields = 31;

double Seconds()
{
    LARGE_INTEGER now, frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// What the module does, as a design tool asks for it.
std::size_t DescribeThroughModule(CHandlerModule& module, CReferenceHost& host, const std::string& identity,
                                  bool loadOnly = false)
{
    MetaObj::CMetaObjectHandler* handler = module.GetHandlerObject();
    host.AnswerNextLoad(CReferenceHost::LoadAnswer::Reload);
    std::size_t described = 0;
    if (handler->LoadObjectInfo(identity.c_str()) == MetaObj::MetaStatusOk) {
        MetaObj::CMethodNameList* keys = nullptr;
        if (!loadOnly && handler->GetMethodNames(&keys) == MetaObj::MetaStatusOk) {
            for (const MetaObj::CMetaString& key : *keys) {
                MetaObj::CMethodInfo* info = nullptr;
                if (handler->GetMethodInfo(key, kAllFields, &info, 0) != MetaObj::MetaStatusOk)
                    continue;
                for (std::uint32_t index = 0; index < info->paramCount; ++index) {
                    MetaObj::CParamInfo* param = nullptr;
                    if (handler->GetParamInfo(key, index, kAllFields, &param, 0) == MetaObj::MetaStatusOk)
                        handler->FreeParamInfo(param);
                }
                handler->FreeMethodInfo(info);
                ++described;
            }
            handler->FreeMethodNameList(keys);
        }
        handler->UnloadObjectInfo();
    }
    handler->Release();
    module.FreeHandlerObject(handler);
    return described;
}

// The baseline: the class's library, its coclass, and every function and
// variable of the interfaces it implements, with names and help texts.
std::size_t WalkTypeInformation(const wchar_t* progId)
{
    CLSID classId;
    if (FAILED(CLSIDFromProgID(progId, &classId)))
        return 0;
    wchar_t key[128] = L"CLSID\\";
    LPOLESTR classText = nullptr;
    StringFromCLSID(classId, &classText);
    wcscat(key, classText);
    wcscat(key, L"\\TypeLib");
    CoTaskMemFree(classText);
    wchar_t libraryText[64] = {};
    LONG size = sizeof libraryText;
    GUID libraryId;
    ITypeLib* library = nullptr;
    if (RegQueryValueW(HKEY_CLASSES_ROOT, key, libraryText, &size) != ERROR_SUCCESS ||
        FAILED(CLSIDFromString(libraryText, &libraryId)))
        return 0;
    // The newest registered version: the library's key lists them.
    wchar_t libraryKey[128] = L"TypeLib\\";
    wcscat(libraryKey, libraryText);
    HKEY versions = nullptr;
    wchar_t version[32] = {};
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, libraryKey, 0, KEY_ENUMERATE_SUB_KEYS, &versions) != ERROR_SUCCESS)
        return 0;
    unsigned major = 0, minor = 0;
    for (DWORD index = 0; RegEnumKeyW(versions, index, version, 32) == ERROR_SUCCESS; ++index) {
        unsigned thisMajor = 0, thisMinor = 0;
        if (swscanf(version, L"%x.%x", &thisMajor, &thisMinor) == 2 &&
            (thisMajor > major || (thisMajor == major && thisMinor > minor))) {
            major = thisMajor;
            minor = thisMinor;
        }
    }
    RegCloseKey(versions);
    if (FAILED(LoadRegTypeLib(libraryId, static_cast<WORD>(major), static_cast<WORD>(minor), GetUserDefaultLCID(),
                              &library)))
        return 0;
    ITypeInfo* coclass = nullptr;
    std::size_t walked = 0;
    if (SUCCEEDED(library->GetTypeInfoOfGuid(classId, &coclass))) {
        TYPEATTR* classAttributes = nullptr;
        coclass->GetTypeAttr(&classAttributes);
        for (UINT implemented = 0; classAttributes && implemented < classAttributes->cImplTypes; ++implemented) {
            HREFTYPE reference;
            ITypeInfo* info = nullptr;
            if (FAILED(coclass->GetRefTypeOfImplType(implemented, &reference)) ||
                FAILED(coclass->GetRefTypeInfo(reference, &info)))
                continue;
            TYPEATTR* attributes = nullptr;
            info->GetTypeAttr(&attributes);
            for (UINT index = 0; attributes && index < attributes->cFuncs; ++index) {
                FUNCDESC* function = nullptr;
                if (FAILED(info->GetFuncDesc(index, &function)))
                    continue;
                BSTR names[32] = {};
                UINT count = 0;
                info->GetNames(function->memid, names, 32, &count);
                BSTR help = nullptr;
                info->GetDocumentation(function->memid, nullptr, &help, nullptr, nullptr);
                for (UINT name = 0; name < count; ++name)
                    SysFreeString(names[name]);
                SysFreeString(help);
                info->ReleaseFuncDesc(function);
                ++walked;
            }
            if (attributes)
                info->ReleaseTypeAttr(attributes);
            info->Release();
        }
        if (classAttributes)
            coclass->ReleaseTypeAttr(classAttributes);
        coclass->Release();
    }
    library->Release();
    return walked;
}

}  // namespace

int main()
{
    std::string error;
    std::unique_ptr<CHandlerModule> module = CHandlerModule::Load(DefaultModulePath(), error);
    if (!module || !module->InitHandler(module->Handle())) {
        std::fprintf(stderr, "describe_bench: %s\n", module ? "InitHandler refused" : error.c_str());
        return 1;
    }
    CReferenceHost host;
    module->SetEnvironment(host.Table());
    struct Case {
        const char* identity;
        const wchar_t* progId;
    };
    const Case cases[] = {
        {"COM://MSXML2.DOMDocument.6.0", L"MSXML2.DOMDocument.6.0"},
        {"COM://Scripting.FileSystemObject", L"Scripting.FileSystemObject"},
    };
    std::printf("%-34s %10s %10s %10s %8s %8s\n", "class", "load ms", "module ms", "walk ms", "methods", "ratio");
    for (const Case& c : cases) {
        // One warm-up each, so that both sides find the library loaded.
        DescribeThroughModule(*module, host, c.identity);
        WalkTypeInformation(c.progId);
        double start = Seconds();
        std::size_t methods = 0;
        for (int round = 0; round < kRounds; ++round)
            methods = DescribeThroughModule(*module, host, c.identity);
        const double moduleTime = (Seconds() - start) / kRounds;
        start = Seconds();
        for (int round = 0; round < kRounds; ++round)
            DescribeThroughModule(*module, host, c.identity, true);
        const double loadTime = (Seconds() - start) / kRounds;
        start = Seconds();
        for (int round = 0; round < kRounds; ++round)
            WalkTypeInformation(c.progId);
        const double walkTime = (Seconds() - start) / kRounds;
        if (WalkTypeInformation(c.progId) == 0)
            std::printf("(the plain walk found nothing for %s)\n", c.identity);
        std::printf("%-34s %10.3f %10.3f %10.3f %8zu %8.2f\n", c.identity, loadTime * 1e3, moduleTime * 1e3,
                    walkTime * 1e3, methods,
                    walkTime > 0 ? moduleTime / walkTime : 0.0);
    }
    module->CleanUpHandler();
    return 0;
}
