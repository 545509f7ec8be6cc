#include "shell_command.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <limits>
#include <system_error>

#include "common/child_process.h"
#include "common/unique_fd.h"

namespace vexo::tools {

namespace {

using clock = std::chrono::steady_clock;

// The shell and whatever it has started that stayed in its process group.
class shell_process {
 public:
  explicit shell_process(pid_t leader) : leader_(leader) {}

  // Blocks until the shell ends, a signal comes, or `deadline`; says which came first.
  interrupt::wake wait(interrupt& stop, clock::time_point deadline) {
    const unique_fd shell(open_pidfd(leader_));
    if (!shell) throw std::system_error(errno, std::generic_category(), "pidfd_open");
    const auto first = stop.wait({shell.get()}, deadline);
    while (first == interrupt::wake::ready && waitpid(leader_, &status_, 0) < 0 && errno == EINTR) {
    }
    return first;
  }

  // Ends the whole group, by SIGTERM and then SIGKILL. False when a process of it is still there,
  // for example one that this user may not signal.
  bool end(interrupt& stop) {
    const int seen = stop.count();
    kill(-leader_, SIGTERM);
    kill(-leader_, SIGCONT);  // stopped processes get SIGTERM only now
    if (wait_until_gone(stop, seen, clock::now() + kTermGrace)) return true;
    kill(-leader_, SIGKILL);
    return wait_until_gone(stop, std::numeric_limits<int>::max(), clock::now() + kKillGrace);
  }

  // As waitpid gives it, once the shell has ended.
  int status() const { return status_; }

 private:
  // False at the deadline, or when more than `seen` signals have come.
  bool wait_until_gone(interrupt& stop, int seen, clock::time_point deadline) {
    while (clock::now() < deadline && stop.count() <= seen) {
      reap();
      // The group's number is not given to anybody else while one process is left in it.
      if (kill(-leader_, 0) < 0 && errno == ESRCH) return true;
      stop.wait({}, clock::now() + kLookEvery, seen);
    }
    return false;
  }

  // Reaps the shell, and those of the group whose parent ended before them.
  void reap() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-leader_, &status, WNOHANG)) > 0) {
      if (ended == leader_) status_ = status;
    }
  }

  static constexpr std::chrono::seconds kKillGrace{1};
  static constexpr std::chrono::milliseconds kLookEvery{20};

  const pid_t leader_;
  int status_ = SIGKILL;
};

}  // namespace

command_result run_shell_command(const std::string& command,
                                 const std::vector<std::string>& variables, interrupt& stop,
                                 std::optional<std::chrono::milliseconds> limit) {
  // Orphans of the group become children of this program, so that it can wait for them.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  command_result result;
  const auto deadline = limit ? clock::now() + *limit : clock::time_point::max();
  pid_t pid = 0;
  try {
    pid = start_child({.arguments = {"/bin/sh", "-c", command},
                       .environment = merged_environment(variables),
                       .stdout_fd = STDERR_FILENO,
                       .directory = ""});
  } catch (const std::system_error& error) {
    result.status = 127;
    result.reason = error.what();
    return result;
  }
  shell_process shell(pid);
  auto first = interrupt::wake::ready;
  try {
    first = shell.wait(stop, deadline);
  } catch (const std::system_error&) {
    shell.end(stop);
    throw;
  }
  result.interrupted = first == interrupt::wake::interrupted;
  result.timed_out = first == interrupt::wake::timeout;
  if (first != interrupt::wake::ready) {
    result.reason = result.timed_out ? "it took longer than it may" : "a signal came";
    result.reason +=
        shell.end(stop) ? ", and the command was ended" : ", and the command could not be ended";
  }
  const int status = shell.status();
  result.status = exit_code_of(status);
  if (first != interrupt::wake::ready || result.status == 0) return result;
  result.reason = WIFSIGNALED(status)
                      ? "the command was ended by signal " + std::to_string(WTERMSIG(status))
                      : "the command exited with " + std::to_string(result.status);
  return result;
}

}  // namespace vexo::tools
