#include "common/interrupt.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "common/poll_until.h"

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
  assert(fds.size() <= kMostFds);
  std::array<pollfd, kMostFds + 1> watched = {};
  nfds_t used = 0;
  for (const int fd : fds) watched[used++] = {fd, POLLIN, 0};
  const nfds_t signals = used++;
  watched[signals] = {fd_, POLLIN, 0};
  for (;;) {
    const bool interrupted = count() > seen;
    const int ready = poll_until({watched.data(), used},
                                 interrupted ? std::chrono::steady_clock::time_point() : deadline);
    if (ready > (watched[signals].revents != 0 ? 1 : 0)) return wake::ready;
    if (interrupted) return wake::interrupted;
    if (ready == 0) return wake::timeout;
  }
}

}  // namespace vexo::tools
