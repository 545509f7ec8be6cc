#ifndef TOOLS_PLUGIN_AGENT_HOOKS_H_
#define TOOLS_PLUGIN_AGENT_HOOKS_H_

#include <chrono>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace vexo::tools {

class guardian;

struct hook {
  std::string name;
  std::string path;
};

struct hook_listing {
  std::vector<hook> usable;  // in name order
  struct refusal {
    std::string name;
    std::string reason;
  };
  std::vector<refusal> refused;
};

// The programs in `directory`: regular files, not hidden and no editor's backups. Refused are those
// that cannot be executed, and those that somebody other than root and the agent's own user and
// group could have written: they run with the agent's rights. Throws std::runtime_error with a
// sentence for the user when the directory cannot be read or could be rewritten itself.
hook_listing list_hooks(const std::string& directory);

struct hook_run {
  std::string name;
  std::string phase;
  int exit_code = 0;  // 128 and a signal's number for one that was killed
  bool timed_out = false;
  std::chrono::milliseconds took{};
  std::string output;  // the first of what it wrote to stdout and stderr

  bool ok() const { return exit_code == 0 && !timed_out; }
};

// Runs hooks, one after the other. One per thread.
class hook_runner {
 public:
  // `environment` is added to the agent's own.
  explicit hook_runner(std::vector<std::string> environment);
  ~hook_runner();
  hook_runner(const hook_runner&) = delete;
  hook_runner& operator=(const hook_runner&) = delete;

  // Blocks until the hook has ended or `timeout` has passed, which ends its whole process group.
  // With a guardian the hook is announced to it, and for good if it has to be killed. A process
  // that a hook leaves behind when it ends in time is left alone: it may hold what the hook has
  // frozen.
  hook_run run(const hook& which, const std::string& phase, std::chrono::milliseconds timeout,
               guardian* watcher);

  const std::vector<std::string>& environment() const { return environment_; }

 private:
  void reap_abandoned();

  std::vector<std::string> environment_;
  unique_fd null_;
  std::vector<int> abandoned_;  // not reaped yet
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HOOKS_H_
