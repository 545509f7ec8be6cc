#ifndef TOOLS_PLUGIN_FREEZER_CHILDREN_H_
#define TOOLS_PLUGIN_FREEZER_CHILDREN_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "plugin_freezer/processes.h"

namespace vexo::tools {

// Whether an exit code is that of a child which a signal has ended. One that was in a system call
// may have completed it.
inline bool is_signal(int exit_code) { return exit_code > 128; }

struct child {
  using clock = std::chrono::steady_clock;

  pid_t pid = -1;
  clock::time_point start;                                // of the program, or of the call
  clock::time_point deadline = clock::time_point::max();  // it is killed then
  bool killed = false;
  std::optional<int> exit_code;  // when it has ended: its own, or 128 and a signal's number
  clock::time_point end;
  std::string output;  // the first of it
  unique_fd pipe;      // the rest of it

  bool ended() const { return exit_code.has_value(); }
  bool succeeded() const { return exit_code == 0 && !killed; }
};

// What the freezer has started: programs, whose output it reads, and copies of itself for calls
// that may hang in the kernel. This process becomes the parent of whatever they leave behind.
class children {
 public:
  using clock = child::clock;

  children();

  // Starts a program, which is killed after `timeout` with all that it has started. Its output goes
  // to a pipe that is read for as long as this process lives, so that neither it nor what it leaves
  // behind is held up, or ended, by what it writes; afterwards the kernel ends those that still
  // write with SIGPIPE. One that cannot be started has ended with 127. References stay good.
  child& start(const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment, clock::duration timeout);

  // Has a forked child run `call`, whose result becomes its exit code, when `recorded` is through:
  // that is called with the child's id, so that it can be written down before anything is done.
  child& fork_call(const std::function<int()>& call, const std::function<void(pid_t)>& recorded);

  // Reads output, takes note of those that have ended and kills those that are overdue. Blocks
  // until something has happened, one of `others` is readable or `until`.
  void wait(const std::vector<int>& others, clock::time_point until);

  // Kills it with all that it has started, which is watched from then on.
  void kill(child& which);
  // Watches these as well. They are not ours, and come with their process groups.
  void watch(const std::vector<process>& others);
  // Those that were killed and have not ended, and whatever they have started since.
  std::vector<process> lingering();

 private:
  child& add(pid_t pid);
  void reap();
  std::vector<process> orphans(const std::vector<process>& running);

  const int hooks_oom_score_;
  unique_fd child_ended_;  // a signalfd for SIGCHLD
  std::list<child> all_;
  std::vector<process> left_behind_;  // by programs that ended by themselves, which may go on
  std::vector<process> watched_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_CHILDREN_H_
