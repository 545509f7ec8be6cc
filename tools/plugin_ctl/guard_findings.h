#ifndef TOOLS_PLUGIN_CTL_GUARD_FINDINGS_H_
#define TOOLS_PLUGIN_CTL_GUARD_FINDINGS_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "guard_sweeper.h"
#include "guard_watch.h"
#include "report.pb.h"

namespace vexo::tools {

// Something wrong with the daemon, as it shows at some moment.
struct finding {
  GuardStatus::State state;
  std::string what;  // the same text for as long as it lasts
  std::chrono::steady_clock::time_point since;
  std::chrono::steady_clock::time_point last_seen;
  bool restart_cures;                        // it is the daemon's process that does this
  std::optional<std::size_t> endpoint = {};  // of sighting::endpoints; empty for the registry
};

// What a guard has seen, and how long it waits for an answer before it calls that a failure.
struct sighting {
  guard_sweeper::view registry;
  std::array<guard_watch::view, 2> endpoints;
  bool process_runs = false;  // the one at the unix socket
  std::chrono::milliseconds patience;
};

// Whether everything has been looked at: before that there is nothing to be said.
bool is_complete(const sighting& seen);
// Empty when all is well.
std::vector<finding> findings(const sighting& seen, std::chrono::steady_clock::time_point now);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_GUARD_FINDINGS_H_
