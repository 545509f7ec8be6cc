#ifndef TOOLS_PLUGIN_GUARD_DAEMON_PROCESS_H_
#define TOOLS_PLUGIN_GUARD_DAEMON_PROCESS_H_

#include <sys/types.h>

#include "common/interrupt.h"
#include "common/unique_fd.h"

namespace vexo::tools {

// The process that serves. Held by a pidfd: a signal never reaches another process that was given
// the same number later.
class daemon_process {
 public:
  // The process that listens at the other end of `connection`, a unix socket, whether it has
  // accepted the connection or not. Throws std::runtime_error when that is not certain, as when the
  // connection was closed meanwhile.
  static daemon_process behind(int connection);

  pid_t pid() const { return pid_; }
  // Readable when it has ended.
  int fd() const { return fd_.get(); }
  bool alive() const;
  // No effect after it has ended. Throws std::system_error when the signal is not allowed.
  void signal(int number) const;

 private:
  daemon_process(pid_t pid, unique_fd fd);

  pid_t pid_;
  unique_fd fd_;
};

// Ends it: SIGABRT, which leaves a core dump where those are enabled, and SIGKILL if it still runs
// 5 s later. False when it runs another 5 s later, or when a signal to this program ended the wait.
// Throws as signal().
bool end_process(const daemon_process& process, interrupt& stop);

// The number of the process that listens at the other end of a unix socket; 0 when it cannot be
// seen from here, as in another PID namespace.
pid_t listener_of(int connection);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_DAEMON_PROCESS_H_
