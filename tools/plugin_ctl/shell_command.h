#ifndef TOOLS_PLUGIN_CTL_SHELL_COMMAND_H_
#define TOOLS_PLUGIN_CTL_SHELL_COMMAND_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/interrupt.h"

namespace vexo::tools {

// How long a command that is told to end (SIGTERM) has before it is killed.
inline constexpr std::chrono::seconds kTermGrace{5};

struct command_result {
  int status = 0;            // the exit status, or 128 and the number of the signal that ended it
  bool interrupted = false;  // a signal to this program came first, and the command was ended
  bool timed_out = false;    // it took longer than it may, and was ended
  std::string reason;        // why it failed; empty when it succeeded

  bool succeeded() const { return status == 0 && !interrupted && !timed_out; }
};

// Runs `command` through /bin/sh -c in a process group of its own and waits for the shell to end.
// `variables` ("NAME=value") are added to the environment; stdin is empty and stdout goes to
// stderr. When a signal comes, or after `limit`, the whole group gets SIGTERM, and SIGKILL after
// kTermGrace or at the next signal. Throws std::system_error when the command cannot be watched; it
// is ended then.
command_result run_shell_command(const std::string& command,
                                 const std::vector<std::string>& variables, interrupt& stop,
                                 std::optional<std::chrono::milliseconds> limit);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SHELL_COMMAND_H_
