#ifndef TOOLS_PLUGIN_AGENT_GUARDIAN_H_
#define TOOLS_PLUGIN_AGENT_GUARDIAN_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <vector>

#include "common/unique_fd.h"
#include "plugin_agent/guarded_child.h"

namespace vexo::tools {

// What a guardian has to know and to hold. Complete before it is forked.
struct guardian_plan {
  std::vector<int> file_systems;       // their roots, in the order of freezing
  std::vector<exec_image> thaw_hooks;  // in the order in which their `freeze` is run
  std::chrono::milliseconds hook_timeout{};
  std::chrono::steady_clock::time_point deadline;
  int turn_fd = -1;  // the lock of the host's freeze, which the guardian's life prolongs
};

// A process of its own that undoes a freeze: at its deadline, when the agent is gone, and when told
// to. It is forked before the first freeze step and hears of every step before it is made, so
// whatever has been frozen when the agent is killed or stopped gets thawed. Its memory is locked,
// and it writes to no file and no log, which could lie on what is frozen; after the fork it calls
// nothing but async-signal-safe functions, since the agent has threads.
//
// It thaws the file systems side by side, because one whose device hangs must not keep the others
// frozen, then runs the thaw hooks in reverse order. A freeze that the agent had begun may complete
// only after that thaw, so the guardian goes on thawing until the agent has said that it is through
// or is gone.
//
// Held by the thread that freezes.
class guardian {
 public:
  // Forks, and waits until it stands ready. Throws std::system_error.
  explicit guardian(const guardian_plan& plan);
  ~guardian();  // dismiss(false)
  guardian(const guardian&) = delete;
  guardian& operator=(const guardian&) = delete;

  // Said before the step. False when the guardian is gone or has begun to thaw: then the step must
  // not be made.
  bool will_freeze_file_system(std::size_t index);
  bool will_run_freeze_hook(std::size_t index);
  // Said after the step, before the child is reaped.
  void freeze_hook_ended();
  // FIFREEZE has failed: there is nothing of ours to thaw.
  void file_system_is_not_ours(std::size_t index);
  // The file systems are thawed, and the agent runs the thaw hooks: gives them their time.
  void running_thaw_hooks();
  // Everything is thawed; with `sure` false the guardian thaws it all once more. Waits for its end,
  // and kills it if that does not come. Only the first call counts.
  void dismiss(bool sure);

  // For start_child: hooks announce themselves to the guardian.
  int announce_fd() const { return socket_.get(); }
  // Readable when watching() has changed.
  int fd() const { return socket_.get(); }
  // Still there and waiting.
  bool watching();
  bool has_thawed() const { return has_thawed_; }
  bool memory_locked() const { return memory_locked_; }
  pid_t pid() const { return pid_; }

 private:
  bool tell(int kind, int value = 0);

  unique_fd socket_;
  pid_t pid_ = -1;
  bool has_thawed_ = false;
  bool gone_ = false;
  bool memory_locked_ = false;
  std::chrono::milliseconds hooks_time_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_GUARDIAN_H_
