#include "common/interrupt.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <limits>
#include <system_error>
#include <thread>

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
                                std::chrono::steady_clock::time_point deadline) noexcept {
  constexpr std::chrono::milliseconds kNap{10};
  std::array<pollfd, kMostFds + 1> watched = {{{fd_, POLLIN, 0}}};
  assert(fds.size() <= kMostFds);
  nfds_t count = 1;
  for (const int fd : fds) watched[count++] = {fd, POLLIN, 0};
  for (;;) {
    // Rounded up, so that a wait never spins through its last millisecond.
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int timeout = static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(
        left.count(), 0, std::numeric_limits<int>::max()));
    const int ready = poll(watched.data(), count, timeout);
    if (ready > 0) {
      return watched[0].revents != 0 && ready == 1 ? wake::interrupted : wake::ready;
    }
    if (left.count() <= 0) return wake::timeout;
    if (ready < 0 && errno != EINTR)
      std::this_thread::sleep_for(kNap);  // the kernel is short of memory
  }
}

}  // namespace vexo::tools
