#pragma once
// comtool call: opens one object and runs calls on it, from the command line
// or from standard input, printing each as text or the whole run as JSON.

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

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

// One value of a report as text: texts quoted, arrays by their bounds and
// nested by dimension, then its meta type, class and signature in brackets.
std::string ItemText(const nlohmann::json& item);
// A call of a report as the text output shows it.
void PrintCallReport(const nlohmann::json& call);

constexpr int kExitCallFailed = 1;
constexpr int kExitBadInput = 2;

// 0 when every call succeeded; kExitCallFailed when the object couldn't be
// opened or a call failed; kExitBadInput for a call that couldn't be built.
// The run stops at the first call that doesn't succeed.
int RunCallCommand(CHandlerModule& module, CReferenceHost& host, const CallCommand& command);

}  // namespace Tool
