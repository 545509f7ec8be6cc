#include "supervisor.h"

#include <chrono>

namespace vexo::test {

namespace {
constexpr std::chrono::milliseconds kLook{5};
}

supervisor::supervisor(dev_log* log, const daemon_options& how) {
  thread_ = std::thread([this, log, how] {
    while (!stop_) {
      const daemon_process daemon(log, how);
      pid_ = daemon.pid();
      ++starts_;
      while (!stop_ && daemon.alive()) std::this_thread::sleep_for(kLook);
    }
  });
  while (starts_ == 0) std::this_thread::sleep_for(kLook);
}

supervisor::~supervisor() {
  stop_ = true;
  thread_.join();
}

}  // namespace vexo::test
