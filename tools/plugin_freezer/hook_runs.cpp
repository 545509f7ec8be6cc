#include "plugin_freezer/hook_runs.h"

#include <chrono>
#include <csignal>

#include "common/child_process.h"

namespace vexo::tools {

using std::chrono::milliseconds;

std::vector<std::string> hook_environment(const FreezerPlan& plan) {
  return merged_environment({plan.environment().begin(), plan.environment().end()});
}

FreezerReport hook_report(const FreezerPlan::Hook& hook, const std::string& phase,
                          const child& run) {
  FreezerReport report;
  auto& shown = *report.mutable_hook();
  shown.set_name(hook.name());
  shown.set_phase(phase);
  shown.set_exit_code(run.killed ? 128 + SIGKILL : run.exit_code.value_or(0));
  shown.set_timed_out(run.killed);
  const auto end = run.ended() ? run.end : child::clock::now();
  shown.set_ms(std::chrono::duration_cast<milliseconds>(end - run.start).count());
  shown.set_output(run.output);
  return report;
}

int run_prepare_hooks(event_loop& loop, const FreezerPlan& plan) {
  const auto environment = hook_environment(plan);
  int started = 0;
  for (const auto& hook : plan.hooks()) {
    child& run = loop.programs.start({hook.path(), "prepare"}, environment,
                                     milliseconds(plan.hook_timeout_ms()));
    ++started;
    while (run.is_running()) {
      loop.wait(child::clock::time_point::max());
      if (loop.agent_gone || loop.terminated || !loop.requests.empty()) {
        loop.programs.kill(run);
        return started;
      }
    }
    loop.agent.send(hook_report(hook, "prepare", run));
    if (!run.succeeded()) break;
  }
  return started;
}

}  // namespace vexo::tools
