#pragma once
// The module as a host loads it, with the reference host, and one handler
// opened on a class of the tests' fixture server: what every benchmark of a
// live object starts from.

#include <cstdio>
#include <memory>
#include <string>

#include "contract/handler_base.h"
#include "host/module_loader.h"
#include "host/reference_host.h"

class CFixtureSession {
public:
    // Says why on stderr, under the program's name, when it can't.
    bool Open(const char* program, const char* identity)
    {
        std::string error;
        module = CHandlerModule::Load(DefaultModulePath(), error);
        if (!module || !module->InitHandler(module->Handle())) {
            std::fprintf(stderr, "%s: %s\n", program, module ? "InitHandler refused" : error.c_str());
            module.reset();
            return false;
        }
        module->SetEnvironment(host.Table());
        handler = module->GetHandlerObject();
        if (handler->Open(identity, nullptr) != MetaObj::MetaStatusOk) {
            std::fprintf(stderr,
                         "%s: %s doesn't open; register the fixture first "
                         "(cd build && ctest -R call_fixture_registration)\n",
                         program, identity);
            return false;
        }
        return true;
    }
    // Gives back the handler and every handler the module made, then ends COM.
    ~CFixtureSession()
    {
        if (!module)
            return;
        if (handler)
            handler->Release();
        host.FreeReleasedHandlers(module->FreeHandlerObject);
        module->CleanUpHandler();
    }

    CReferenceHost host;
    std::unique_ptr<CHandlerModule> module;
    MetaObj::CMetaObjectHandler* handler = nullptr;
};
