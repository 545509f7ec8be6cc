#include "daemon_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

extern "C" {
#include <sys/pidfd.h>  // of glibc 2.36: does not say itself that it is C
}

namespace vexo::tools {

namespace {

constexpr std::chrono::seconds kDyingTime{5};

std::string errno_text() { return std::generic_category().message(errno); }

unique_fd open_process(pid_t pid) {
  unique_fd fd(pidfd_open(pid, 0));
  if (!fd) throw std::runtime_error("process " + std::to_string(pid) + ": " + errno_text());
  return fd;
}

bool is_closed(int connection) {
  pollfd watched = {connection, POLLRDHUP, 0};
  return poll(&watched, 1, 0) != 0;
}

// When a process began and when a file was written, both in seconds since 1970.
double start_time(pid_t pid) {
  constexpr int kStartTimeField = 22;
  const auto ticks = stat_field(pid, kStartTimeField);
  std::ifstream system("/proc/stat");
  std::string name;
  double boot = 0;
  while (system >> name && name != "btime") std::getline(system, name);
  if (!ticks || !(system >> boot)) {
    throw std::runtime_error("process " + std::to_string(pid) + " has no start time");
  }
  return boot + *ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double write_time(const std::string& path) {
  struct stat facts = {};
  if (stat(path.c_str(), &facts) != 0) throw std::runtime_error(path + ": " + errno_text());
  constexpr double kNano = 1e-9;
  return static_cast<double>(facts.st_mtim.tv_sec) +
         static_cast<double>(facts.st_mtim.tv_nsec) * kNano;
}

}  // namespace

daemon_process::daemon_process(pid_t pid, unique_fd fd) : pid_(pid), fd_(std::move(fd)) {}

daemon_process daemon_process::behind(int connection) {
  const pid_t pid = listener_of(connection);
  if (pid == 0) {
    throw std::runtime_error(
        "its process cannot be seen from here: run the guard in the daemon's PID namespace, or "
        "name the process with --pid-file");
  }
  unique_fd fd = open_process(pid);
  // The connection ends with its listener: as long as it is open the number has not changed hands.
  if (is_closed(connection)) throw std::runtime_error("the connection was closed at once");
  return {pid, std::move(fd)};
}

daemon_process daemon_process::named_in(const std::string& pid_file) {
  // The boot time is known to the second.
  constexpr double kTolerance = 2;
  std::ifstream file(pid_file);
  if (!file) throw std::runtime_error(pid_file + ": " + errno_text());
  pid_t pid = 0;
  if (!(file >> pid) || pid <= 1) throw std::runtime_error(pid_file + " names no process");
  unique_fd fd = open_process(pid);
  if (start_time(pid) > write_time(pid_file) + kTolerance) {
    throw std::runtime_error(pid_file + " is older than process " + std::to_string(pid) +
                             ", which is therefore not the daemon");
  }
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
    if (stop.wait({process.fd()}, std::chrono::steady_clock::now() + kDyingTime) !=
        interrupt::wake::timeout) {
      break;
    }
  }
  return !process.alive();
}

std::optional<double> stat_field(pid_t pid, int field) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text, '\0');
  // The name, in parentheses, may hold anything.
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  std::string skipped;
  for (int i = 3; i < field && fields >> skipped; ++i) continue;
  double number = 0;
  if (!(fields >> number)) return std::nullopt;
  return number;
}

pid_t listener_of(int connection) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return 0;
  return peer.pid;
}

}  // namespace vexo::tools
