// A host's plugin: subscribes to appliances and brings this host to rest for their snapshots.

#include <grpc/grpc.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>

#include "common/exit_codes.h"
#include "common/interrupt.h"
#include "plugin_agent/agent.h"
#include "plugin_agent/agent_log.h"
#include "plugin_agent/freeze_turn.h"
#include "plugin_agent/options.h"
#include "plugin_agent/recovery.h"
#include "plugin_agent/survival.h"

namespace vexo::tools {
namespace {

using std::chrono::steady_clock;

// Longer than any freeze may last, and its guardian needs to undo it.
constexpr std::chrono::seconds kTurnTime{75};
constexpr std::chrono::milliseconds kTurnLook{50};

// The log is held, since it may lead to what is still frozen.
void thaw_what_was_left(const agent_options& options, interrupt& stop) {
  const log_hold hold;
  const auto deadline = steady_clock::now() + kTurnTime;
  for (bool said = false; !stop.requested(); said = true) {
    const auto turn = freeze_turn::try_take(options.run_dir);
    const bool overdue = steady_clock::now() >= deadline;
    if (!turn && overdue) {
      agent_log().warn(
          "the other freeze lasts longer than any may (see who has {}/lock open); "
          "thawing it",
          printable(options.run_dir));
    }
    if (turn || overdue) return thaw_left_behind(options.run_dir, options.hook_timeout);
    if (!said) agent_log().info("another freeze on this host was under way; waited for its end");
    stop.wait({}, steady_clock::now() + kTurnLook);
  }
}

exit_code run(const agent_options& options, interrupt& stop) {
  if (options.verbose) agent_log().set_level(spdlog::level::debug);
  if (options.freezes() || options.thaw_and_exit) {
    thaw_what_was_left(options, stop);
    if (options.thaw_and_exit) return exit_code::done;
  }
  // For good: gRPC's own end waits for the threads that it could not start.
  grpc_init();
  agent(options).run(stop);
  return exit_code::done;
}

}  // namespace
}  // namespace vexo::tools

int main(int argc, char** argv) {
  using namespace vexo::tools;
  // Hooks and guardians are forked while gRPC is at work, and never use it themselves.
  setenv("GRPC_ENABLE_FORK_SUPPORT", "0", 1);  // NOLINT(concurrency-mt-unsafe): no threads yet
  // A log that nobody reads any more is no reason to leave, least of all without unsubscribing.
  std::signal(SIGPIPE, SIG_IGN);
  yield_lowest_oom_score();
  try {
    exit_code end = exit_code::done;
    if (const auto options = parse_agent_options(argc, argv, end)) {
      interrupt stop;
      end = run(*options, stop);
    }
    return static_cast<int>(end);
  } catch (const std::exception& error) {
    agent_log().critical("{}", printable(error.what()));
    return static_cast<int>(exit_code::failed);
  }
}
