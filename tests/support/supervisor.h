#ifndef TESTS_SUPPORT_SUPERVISOR_H_
#define TESTS_SUPPORT_SUPERVISOR_H_

#include <sys/types.h>

#include <atomic>
#include <thread>

#include "daemon.h"

namespace vexo::test {

// Does for the daemon what a service manager does: starts it anew whenever it has ended.
class supervisor {
 public:
  // Returns when the daemon serves.
  explicit supervisor(dev_log* log, const daemon_options& how = {});
  ~supervisor();  // ends it
  supervisor(const supervisor&) = delete;
  supervisor& operator=(const supervisor&) = delete;

  // The daemon that has served last.
  pid_t pid() const { return pid_; }
  int restarts() const { return starts_ - 1; }

 private:
  std::atomic<pid_t> pid_ = 0;
  std::atomic<int> starts_ = 0;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_SUPERVISOR_H_
