#ifndef TOOLS_PLUGIN_CTL_DAEMON_PROCESS_H_
#define TOOLS_PLUGIN_CTL_DAEMON_PROCESS_H_

#include <sys/types.h>

#include "common/interrupt.h"
#include "common/unique_fd.h"

namespace vexo::tools {

// The process that serves, held in a way in which its number cannot come to mean another one.
class daemon_process {
 public:
  // Whoever listens at the other end of `connection`, a unix socket; a connection that nobody has
  // accepted will do. Throws std::runtime_error when that cannot be told for certain, as on a
  // connection that was closed meanwhile.
  static daemon_process behind(int connection);

  pid_t pid() const { return pid_; }
  // Readable when it has ended.
  int fd() const { return fd_.get(); }
  bool alive() const;
  // Throws std::system_error when that is not allowed. One that has ended is left in peace.
  void signal(int number) const;

 private:
  daemon_process(pid_t pid, unique_fd fd);

  pid_t pid_;
  unique_fd fd_;
};

// Ends it: SIGABRT, which leaves a core where cores are wanted, and SIGKILL 5 s later. False when
// it goes on even then, or when a signal to this program came first. Throws as signal().
bool end_process(const daemon_process& process, interrupt& stop);

// The process number of whoever listens at the other end of a unix socket; 0 when it cannot be seen
// from here, as in another PID namespace.
pid_t listener_of(int connection);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_DAEMON_PROCESS_H_
