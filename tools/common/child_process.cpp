#include "common/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/poll_until.h"
#include "common/unique_fd.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kDyingTime{200};

std::vector<char*> pointers_into(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (auto& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

void check(int error, const std::string& what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

class spawn_actions {
 public:
  spawn_actions() { check(posix_spawn_file_actions_init(&actions_), "posix_spawn"); }
  ~spawn_actions() { posix_spawn_file_actions_destroy(&actions_); }
  spawn_actions(const spawn_actions&) = delete;
  spawn_actions& operator=(const spawn_actions&) = delete;

  void give(int fd, int as) {
    if (fd >= 0) check(posix_spawn_file_actions_adddup2(&actions_, fd, as), "posix_spawn");
  }
  void open_null(int as) {
    check(posix_spawn_file_actions_addopen(&actions_, as, "/dev/null", O_RDONLY, 0), "posix_spawn");
  }
  void change_directory(const std::string& to) {
    check(posix_spawn_file_actions_addchdir_np(&actions_, to.c_str()), "posix_spawn");
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_ = {};
};

class spawn_attributes {
 public:
  explicit spawn_attributes(bool new_session) {
    check(posix_spawnattr_init(&attributes_), "posix_spawn");
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes_, &none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setpgroup(&attributes_, 0);
    const int group = new_session ? POSIX_SPAWN_SETSID : POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setflags(&attributes_,
                             static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                group));  // NOLINT(*-runtime-int)
  }
  ~spawn_attributes() { posix_spawnattr_destroy(&attributes_); }
  spawn_attributes(const spawn_attributes&) = delete;
  spawn_attributes& operator=(const spawn_attributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_ = {};
};

bool has_ended(pid_t pid) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
         info.si_pid != 0;
}

}  // namespace

std::vector<std::string> merged_environment(std::vector<std::string> variables) {
  const auto given = static_cast<std::ptrdiff_t>(variables.size());
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view own = *entry;
    const std::string_view name = own.substr(0, own.find('=') + 1);
    const bool replaced =
        std::any_of(variables.begin(), variables.begin() + given,
                    [&](const std::string& other) { return other.starts_with(name); });
    if (!replaced) variables.emplace_back(own);
  }
  return variables;
}

pid_t start_child(const child_options& options) {
  spawn_actions actions;
  actions.give(options.stdout_fd, STDOUT_FILENO);
  actions.give(options.stderr_fd, STDERR_FILENO);
  if (options.stdin_fd >= 0) {
    actions.give(options.stdin_fd, STDIN_FILENO);
  } else {
    actions.open_null(STDIN_FILENO);
  }
  if (!options.directory.empty()) actions.change_directory(options.directory);
  const spawn_attributes attributes(options.new_session);
  auto arguments = options.arguments;
  auto environment = options.environment;
  pid_t pid = 0;
  check(posix_spawn(&pid, arguments.front().c_str(), actions.get(), attributes.get(),
                    pointers_into(arguments).data(), pointers_into(environment).data()),
        "starting " + options.arguments.front());
  return pid;
}

int open_pidfd(pid_t pid) {
  // glibc's own pidfd_open cannot be linked from C++ before 2.37.
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool await_child(pid_t pid, steady_clock::time_point deadline) {
  constexpr milliseconds kLook{10};  // without a descriptor for the process
  const unique_fd exit_watch(open_pidfd(pid));
  while (!has_ended(pid) && steady_clock::now() < deadline) {
    pollfd watched = {exit_watch.get(), POLLIN, 0};
    poll_until({&watched, 1},
               exit_watch ? deadline : std::min(deadline, steady_clock::now() + kLook));
  }
  return has_ended(pid);
}

bool kill_child_group(pid_t pid) {
  kill(-pid, SIGKILL);
  return await_child(pid, steady_clock::now() + kDyingTime);
}

int exit_code_of(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

int reap_child(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) != pid) {
    if (errno != EINTR) return 127;
  }
  return exit_code_of(status);
}

}  // namespace vexo::tools
