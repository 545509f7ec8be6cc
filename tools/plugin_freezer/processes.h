#ifndef TOOLS_PLUGIN_FREEZER_PROCESSES_H_
#define TOOLS_PLUGIN_FREEZER_PROCESSES_H_

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace vexo::tools {

// A process as /proc shows it. One that a sandbox hides is not found.
struct process {
  pid_t pid = 0;
  pid_t parent = 0;
  pid_t group = 0;
  char state = 0;
  std::uint64_t start = 0;  // ticks after the boot; tells two of one pid apart

  bool is_stopped() const { return state == 'T' || state == 't'; }
};

// All processes but zombies.
std::vector<process> running_processes();

// The children of `ancestor` among `all`, their children, and so on.
std::vector<process> descendants(const std::vector<process>& all, pid_t ancestor);

// One process; state is 0 when there is none with this id.
process look_at(pid_t pid);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_PROCESSES_H_
