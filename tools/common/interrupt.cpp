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

int interrupt::count() noexcept {
  signalfd_siginfo info = {};
  while (read(fd_, &info, sizeof info) == sizeof info) ++count_;
  return count_;
}

interrupt::wake interrupt::wait(std::initializer_list<int> fds,
                                std::chrono::steady_clock::time_point deadline, int seen) noexcept {
  constexpr std::chrono::milliseconds kNap{10};
  assert(fds.size() <= kMostFds);
  std::array<pollfd, kMostFds + 1> watched = {};
  nfds_t used = 0;
  for (const int fd : fds) watched[used++] = {fd, POLLIN, 0};
  const nfds_t signals = used++;
  watched[signals] = {fd_, POLLIN, 0};
  for (;;) {
    const bool interrupted = count() > seen;
    // Rounded up, so that a wait never spins through its last millisecond.
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int patience = static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(
        left.count(), 0, std::numeric_limits<int>::max()));
    const int ready = poll(watched.data(), used, interrupted ? 0 : patience);
    if (ready > (watched[signals].revents != 0 ? 1 : 0)) return wake::ready;
    if (interrupted) return wake::interrupted;
    if (left.count() <= 0) return wake::timeout;
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(kNap);  // short of kernel memory
  }
}

}  // namespace vexo::tools
