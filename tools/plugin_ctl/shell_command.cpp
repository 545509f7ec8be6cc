#include "shell_command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <limits>
#include <string_view>
#include <system_error>

#include "common/unique_fd.h"

namespace vexo::tools {

namespace {

using clock = std::chrono::steady_clock;

void check(int error, const char* what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

class spawn_actions {
 public:
  spawn_actions() { check(posix_spawn_file_actions_init(&actions_), "posix_spawn"); }
  ~spawn_actions() { posix_spawn_file_actions_destroy(&actions_); }
  spawn_actions(const spawn_actions&) = delete;
  spawn_actions& operator=(const spawn_actions&) = delete;

  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_ = {};
};

class spawn_attributes {
 public:
  spawn_attributes() { check(posix_spawnattr_init(&attributes_), "posix_spawn"); }
  ~spawn_attributes() { posix_spawnattr_destroy(&attributes_); }
  spawn_attributes(const spawn_attributes&) = delete;
  spawn_attributes& operator=(const spawn_attributes&) = delete;

  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_ = {};
};

// This program's environment with `variables` in place of its own of the same names.
std::vector<std::string> merged_environment(const std::vector<std::string>& variables) {
  std::vector<std::string> merged = variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view own = *entry;
    const std::string_view name = own.substr(0, own.find('=') + 1);
    bool replaced = false;
    for (const std::string& variable : variables) replaced |= variable.starts_with(name);
    if (!replaced) merged.emplace_back(own);
  }
  return merged;
}

std::vector<char*> as_argv(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The shell as the leader of a new process group, with the signals as a program expects them: this
// program blocks some and ignores SIGPIPE.
pid_t spawn_shell(const std::string& command, const std::vector<std::string>& variables) {
  spawn_actions actions;
  check(posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0),
        "posix_spawn");
  check(posix_spawn_file_actions_adddup2(actions.get(), STDERR_FILENO, STDOUT_FILENO),
        "posix_spawn");

  spawn_attributes attributes;
  sigset_t none;
  sigemptyset(&none);
  sigset_t ignored_here;
  sigemptyset(&ignored_here);
  sigaddset(&ignored_here, SIGPIPE);
  check(posix_spawnattr_setsigmask(attributes.get(), &none), "posix_spawn");
  check(posix_spawnattr_setsigdefault(attributes.get(), &ignored_here), "posix_spawn");
  check(posix_spawnattr_setpgroup(attributes.get(), 0), "posix_spawn");
  check(posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                       POSIX_SPAWN_SETPGROUP),
        "posix_spawn");

  std::vector<std::string> arguments = {"sh", "-c", command};
  std::vector<std::string> environment = merged_environment(variables);
  pid_t pid = 0;
  check(posix_spawn(&pid, "/bin/sh", actions.get(), attributes.get(), as_argv(arguments).data(),
                    as_argv(environment).data()),
        "starting /bin/sh");
  return pid;
}

// The shell and whatever it has started that stayed in its process group.
class shell_process {
 public:
  explicit shell_process(pid_t leader) : leader_(leader) {}

  // Blocks until the shell ends; false when a signal came first.
  bool wait(interrupt& stop) {
    // glibc's own pidfd_open cannot be linked from C++ before 2.37.
    const unique_fd shell(static_cast<int>(syscall(SYS_pidfd_open, leader_, 0)));
    if (!shell) throw std::system_error(errno, std::generic_category(), "pidfd_open");
    if (stop.wait({shell.get()}, clock::time_point::max()) != interrupt::wake::ready) return false;
    while (waitpid(leader_, &status_, 0) < 0 && errno == EINTR) {
    }
    return true;
  }

  // Ends the whole group: asks, then kills. False when some of it is still there, which takes a
  // process that this user may not signal.
  bool end(interrupt& stop) {
    const int seen = stop.count();
    kill(-leader_, SIGTERM);
    kill(-leader_, SIGCONT);  // those that are stopped hear it only now
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

  // The shell, and those of the group whose parent has ended before them.
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
                                 const std::vector<std::string>& variables, interrupt& stop) {
  // Orphans of the group become children of this program, which alone can tell when they are gone.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  pid_t pid = 0;
  try {
    pid = spawn_shell(command, variables);
  } catch (const std::system_error& error) {
    return {127, false, error.what()};
  }
  shell_process shell(pid);
  command_result result;
  try {
    result.interrupted = !shell.wait(stop);
  } catch (const std::system_error&) {
    shell.end(stop);
    throw;
  }
  if (result.interrupted) {
    result.reason = shell.end(stop) ? "a signal came, and the command was ended"
                                    : "a signal came, and the command could not be ended";
  }
  const int status = shell.status();
  result.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  if (result.interrupted || result.status == 0) return result;
  result.reason = WIFSIGNALED(status)
                      ? "the command was ended by signal " + std::to_string(WTERMSIG(status))
                      : "the command exited with " + std::to_string(result.status);
  return result;
}

}  // namespace vexo::tools
