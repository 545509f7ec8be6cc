#include "common/interrupt.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <limits>
#include <system_error>
#include <vector>

namespace vexo::tools {

interrupt::interrupt() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  if (const int error = pthread_sigmask(SIG_BLOCK, &signals, nullptr); error != 0) {
    throw std::system_error(error, std::generic_category(), "pthread_sigmask");
  }
  fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

interrupt::~interrupt() { close(fd_); }

int interrupt::count() {
  signalfd_siginfo info = {};
  while (read(fd_, &info, sizeof info) == sizeof info) ++count_;
  return count_;
}

interrupt::wake interrupt::wait(std::initializer_list<int> fds,
                                std::chrono::steady_clock::time_point deadline) {
  std::vector<pollfd> watched;
  for (const int fd : fds) watched.push_back({fd, POLLIN, 0});
  watched.push_back({fd_, POLLIN, 0});
  for (;;) {
    // Rounded up, so that a wait never spins through its last millisecond.
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int timeout = static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(
        left.count(), 0, std::numeric_limits<int>::max()));
    const int ready = poll(watched.data(), watched.size(), timeout);
    if (ready < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    if (ready > 0) {
      return watched.back().revents != 0 && ready == 1 ? wake::interrupted : wake::ready;
    }
    if (ready == 0 && left.count() <= 0) return wake::timeout;
  }
}

}  // namespace vexo::tools
