#ifndef TOOLS_COMMON_CHILD_PROCESS_H_
#define TOOLS_COMMON_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace vexo::tools {

// This program's environment ("NAME=value"), in which `variables` replace those of the same name
// and are added otherwise.
std::vector<std::string> merged_environment(std::vector<std::string> variables);

struct child_options {
  std::vector<std::string> arguments;    // the first is the program's path
  std::vector<std::string> environment;  // all of it
  // Which of our descriptors it gets. -1 stands for /dev/null, and for our own stdout and stderr.
  int stdin_fd = -1;
  int stdout_fd = -1;
  int stderr_fd = -1;
  std::string directory = "/";  // empty: ours
  bool new_session = false;     // otherwise only a new process group
};

// Starts the program in a process group of its own, with the signals as a program expects them:
// none blocked, none ignored. It inherits our other descriptors unless they have FD_CLOEXEC. Any
// thread may call. Throws std::system_error when the program cannot be executed.
pid_t start_child(const child_options& options);

// A descriptor, with FD_CLOEXEC, that is readable when the process, child or not, has ended. On
// failure -1, with errno set.
int open_pidfd(pid_t pid);

// Blocks until the child has ended or `deadline` has passed; true when it has ended. Does not reap
// it, so no other process can have got its id.
bool await_child(pid_t pid, std::chrono::steady_clock::time_point deadline);

// Kills the child's whole process group and waits 0.2 s for the child. False when the child has not
// ended: a process that writes to a frozen file system, or is freezing one, cannot end before that
// is over.
bool kill_child_group(pid_t pid);

// The exit code in a status from waitpid; 128 plus the signal's number if a signal ended the child.
int exit_code_of(int wait_status);

// Waits until the child has ended and reaps it. Returns its exit_code_of().
int reap_child(pid_t pid);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_CHILD_PROCESS_H_
