#ifndef TOOLS_PLUGIN_FREEZER_HOOK_RUNS_H_
#define TOOLS_PLUGIN_FREEZER_HOOK_RUNS_H_

#include <string>
#include <vector>

#include "freezer.pb.h"
#include "plugin_freezer/event_loop.h"

namespace vexo::tools {

// The environment of the plan's hooks, and of the members' commands.
std::vector<std::string> hook_environment(const FreezerPlan& plan);

// What there is to report about the run of a hook that has ended or was killed.
FreezerReport hook_report(const FreezerPlan::Hook& hook, const std::string& phase,
                          const child& run);

// Runs the `prepare` hooks, one after the other, until one fails or there is a reason to stop: a
// request, a signal, or the agent's end. How many were started.
int run_prepare_hooks(event_loop& loop, const FreezerPlan& plan);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_HOOK_RUNS_H_
