#include "plugin_agent/freezer_process.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "common/child_process.h"
#include "common/poll_until.h"
#include "plugin_agent/agent_log.h"
#include "plugin_freezer/packets.h"

namespace vexo::tools {

std::string freezer_path() {
  constexpr char kName[] = "/plugin_freezer";
  std::error_code error;
  const auto own = std::filesystem::read_symlink("/proc/self/exe", error);
  const char* const path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  std::istringstream places(own.parent_path().string() + ":" + (path == nullptr ? "" : path));
  for (std::string place; std::getline(places, place, ':');) {
    if (place.starts_with('/') && access((place + kName).c_str(), X_OK) == 0) return place + kName;
  }
  throw std::runtime_error(
      "plugin_freezer, which freezes and thaws for the agent, is neither beside plugin_agent nor "
      "on the PATH; install it");
}

freezer_process::freezer_process(const FreezerRequest& request) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  socket_ = unique_fd(ends[0]);
  const unique_fd its_end(ends[1]);
  const pid_t pid = start_child({.arguments = {freezer_path()},
                                 .environment = merged_environment({}),
                                 .stdin_fd = its_end.get(),
                                 .new_session = true});
  process_ = unique_fd(open_pidfd(pid));
  if (!send(request)) {
    kill();
    throw std::runtime_error("the freezer cannot be told what to do: too much at once");
  }
}

bool freezer_process::send(const FreezerRequest& request) const {
  return send_packet(socket_.get(), request);
}

std::optional<FreezerReport> freezer_process::receive(bool& gone) const {
  for (FreezerReport report;;) {
    switch (receive_packet(socket_.get(), report)) {
      case packet::none:
        return std::nullopt;
      case packet::closed:
        gone = true;
        return std::nullopt;
      case packet::received:
        break;
    }
    if (!report.has_line()) return report;
    agent_log().log(report.line().is_error() ? spdlog::level::err : spdlog::level::warn, "{}",
                    printable(report.line().text()));
  }
}

void freezer_process::kill() const {
  syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0);
}

void recover(const std::string& run_dir, std::chrono::milliseconds hook_timeout, int stop_fd) {
  FreezerRequest request;
  request.mutable_recover()->set_run_dir(run_dir);
  request.mutable_recover()->set_hook_timeout_ms(hook_timeout.count());
  const freezer_process freezer(request);
  for (bool gone = false; !gone;) {
    pollfd watched[] = {{freezer.fd(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
    poll_until(watched, std::chrono::steady_clock::time_point::max());
    if (watched[1].revents != 0) return;
    while (const auto report = freezer.receive(gone)) {
      if (!report->has_thawed()) continue;
      if (!report->thawed().reason().empty()) {
        agent_log().error("{}", printable(report->thawed().reason()));
      }
      return;
    }
  }
}

}  // namespace vexo::tools
