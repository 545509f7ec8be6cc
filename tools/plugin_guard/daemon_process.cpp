#include "plugin_guard/daemon_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

extern "C" {
#include <sys/pidfd.h>  // of glibc 2.36: does not say itself that it is C
}

#include "common/child_process.h"

namespace vexo::tools {

namespace {

constexpr std::chrono::seconds kEndTime{5};

std::string errno_text() { return std::generic_category().message(errno); }

unique_fd open_process(pid_t pid) {
  unique_fd fd(open_pidfd(pid));
  if (!fd) throw std::runtime_error("process " + std::to_string(pid) + ": " + errno_text());
  return fd;
}

bool is_closed(int connection) {
  pollfd watched = {connection, POLLRDHUP, 0};
  return poll(&watched, 1, 0) != 0;
}

}  // namespace

daemon_process::daemon_process(pid_t pid, unique_fd fd) : pid_(pid), fd_(std::move(fd)) {}

daemon_process daemon_process::behind(int connection) {
  const pid_t pid = listener_of(connection);
  if (pid == 0) {
    throw std::runtime_error(
        "its process cannot be seen from here: run the guard in the daemon's PID namespace");
  }
  unique_fd fd = open_process(pid);
  // A connection ends with its listener: while it is open, the number still means the same process.
  if (is_closed(connection)) throw std::runtime_error("the connection was closed at once");
  return {pid, std::move(fd)};
}

bool daemon_process::alive() const {
  pollfd end = {fd(), POLLIN, 0};
  return poll(&end, 1, 0) == 0;
}

void daemon_process::signal(int number) const {
  if (pidfd_send_signal(fd(), number, nullptr, 0) == 0 || errno == ESRCH) return;
  throw std::system_error(errno, std::generic_category(), "signal to " + std::to_string(pid_));
}

bool end_process(const daemon_process& process, interrupt& stop) {
  for (const int number : {SIGABRT, SIGKILL}) {
    process.signal(number);
    syslog(LOG_ERR, "sent SIG%s to the daemon, process %d", sigabbrev_np(number), process.pid());
    if (stop.wait({process.fd()}, std::chrono::steady_clock::now() + kEndTime) !=
        interrupt::wake::timeout) {
      break;
    }
  }
  return !process.alive();
}

pid_t listener_of(int connection) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return 0;
  return peer.pid;
}

}  // namespace vexo::tools
