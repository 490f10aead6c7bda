#pragma once
// comtool tour: a short run on objects every machine has, with a line of
// explanation per step, for someone who meets the module for the first time.

#include "host/module_loader.h"
#include "host/reference_host.h"

namespace Tool {

// 0 when every step did what it shows; 1 otherwise. A step that fails says
// why, and the later steps still run.
int RunTour(CHandlerModule& module, CReferenceHost& host);

}  // namespace Tool
