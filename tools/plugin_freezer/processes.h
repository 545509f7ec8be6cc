#ifndef TOOLS_PLUGIN_FREEZER_PROCESSES_H_
#define TOOLS_PLUGIN_FREEZER_PROCESSES_H_

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace vexo::tools {

// What /proc says of a process. One that another user's sandbox hides is not seen.
struct process {
  pid_t pid = 0;
  pid_t parent = 0;
  pid_t group = 0;
  char state = 0;
  std::uint64_t start = 0;  // ticks after the boot; tells two of one pid apart

  bool is_stopped() const { return state == 'T' || state == 't'; }
};

// All that have not ended: zombies are left out.
std::vector<process> running_processes();

// Those of `all` that `ancestor` has started, and those that these have started, and so on.
std::vector<process> descendants(const std::vector<process>& all, pid_t ancestor);

// One process, with state 0 when there is none.
process look_at(pid_t pid);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_PROCESSES_H_
