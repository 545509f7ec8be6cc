#ifndef TOOLS_PLUGIN_GUARD_FINDINGS_H_
#define TOOLS_PLUGIN_GUARD_FINDINGS_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "guard_status.pb.h"
#include "plugin_guard/sweeper.h"
#include "plugin_guard/watch.h"

namespace vexo::tools {

// Something that is wrong with the daemon.
struct finding {
  GuardStatus::State state;
  std::string what;  // stays the same for as long as the failure lasts
  std::chrono::steady_clock::time_point since;
  std::chrono::steady_clock::time_point last_seen;
  bool restart_cures;                        // the daemon's process is the cause
  std::optional<std::size_t> endpoint = {};  // of observation::endpoints; empty for the registry
};

// What sweeper and watch have seen.
struct observation {
  sweeper::view registry;
  std::array<watch::view, 2> endpoints;
  bool process_runs = false;           // the process at the unix socket
  std::chrono::milliseconds patience;  // a list that is not answered for longer is a failure
};

// Whether both endpoints have been looked at and, if the unix socket serves, the list was asked
// for.
bool is_complete(const observation& seen);
// Empty when all is well.
std::vector<finding> findings(const observation& seen, std::chrono::steady_clock::time_point now);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_FINDINGS_H_
