#pragma once
// comtool call: opens one object and runs calls on it, from the command line
// or from standard input, printing each as text or the whole run as JSON.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/call_session.h"
#include "host/module_loader.h"
#include "host/reference_host.h"

namespace Tool {

struct CallCommand {
    std::string identity;
    std::vector<std::string> calls;  // a single "-" reads them from standard input
    OpenOptions options;
    bool asJson = false;
};

constexpr int kExitCallFailed = 1;
constexpr int kExitBadInput = 2;

// 0 when every call succeeded; kExitCallFailed when the object couldn't be
// opened or a call failed; kExitBadInput for a call that couldn't be built.
// The run stops at the first call that doesn't succeed.
int RunCallCommand(CHandlerModule& module, CReferenceHost& host, const CallCommand& command);

// The end of a run of calls or walks: the handlers the module made for
// returned objects are the host's to free, and one still in use after
// everything was given back is a leak. Prints the JSON document when asked and
// the failure on stderr; gives exitCode back.
int FinishRun(CHandlerModule& module, CReferenceHost& host, nlohmann::json& document, const std::string& failure,
              bool asJson, int exitCode);

}  // namespace Tool
