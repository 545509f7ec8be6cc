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

// Whether this is the exit code of a child that a signal has ended. The child may have completed
// the system call that it was in.
inline bool is_signal(int exit_code) { return exit_code > 128; }

struct child {
  using clock = std::chrono::steady_clock;

  pid_t pid = -1;
  clock::time_point start;                                // of the program, or of the call
  clock::time_point deadline = clock::time_point::max();  // then it is killed
  bool killed = false;                                    // by this program; it may live on
  std::optional<int> exit_code;  // when it has ended: its own, or 128 and a signal's number
  clock::time_point end;
  std::string output;  // the first 16 KiB
  unique_fd pipe;      // for its output; empty for a call

  bool ended() const { return exit_code.has_value(); }
  bool is_running() const { return !ended() && !killed; }
  bool succeeded() const { return exit_code == 0 && !killed; }
};

// The children of the freezer: programs, whose output it reads, and copies of itself for calls that
// may hang in the kernel. This process becomes the parent of the processes that they leave behind.
class children {
 public:
  using clock = child::clock;

  children();

  // Starts a program. After `timeout` it is killed with all processes that it has started. Its
  // output goes to a pipe that is read for as long as this process lives, so that writing neither
  // blocks nor ends the program or the processes that it leaves behind; when this process has
  // ended, the kernel ends those that still write with SIGPIPE. A program that cannot be started
  // has ended with 127. The reference stays valid.
  child& start(const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment, clock::duration timeout);

  // Forks a child that runs `call`; the result becomes its exit code. Before that, `recorded` is
  // called here with the child's id, so that it is on record before the child does anything.
  child& fork_call(const std::function<int()>& call, const std::function<void(pid_t)>& recorded);

  // Blocks until a child has ended, written or reached its deadline, one of `others` is readable,
  // or `until`. Reads output, notes which have ended, and kills those past their deadline.
  void wait(const std::vector<int>& others, clock::time_point until);

  // Kills it with all processes that it has started, which lingering() looks at from then on.
  void kill(child& which);
  // Kills these, with their process groups, as well: the children of an earlier freezer.
  void kill_others(const std::vector<process>& others);
  // The processes that were killed and have not ended, and those that they have started since.
  std::vector<process> lingering();

 private:
  child& add(pid_t pid);
  void reap();
  std::vector<process> orphans(const std::vector<process>& running);

  const int hooks_oom_score_;
  unique_fd child_ended_;  // a signalfd for SIGCHLD
  std::list<child> all_;
  std::vector<process> left_behind_;  // by programs that ended by themselves; these may live on
  std::vector<process> killed_;       // with the processes that they have started
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_CHILDREN_H_
