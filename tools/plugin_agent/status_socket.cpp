#include "plugin_agent/status_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/poll_until.h"
#include "plugin_agent/agent_log.h"
#include "plugin_freezer/packets.h"

namespace vexo::tools {

namespace {

constexpr std::string_view kPrefix = "agent.";
constexpr std::string_view kSuffix = ".sock";
constexpr mode_t kOwnMode = 0600;
constexpr mode_t kMode = 0660;
constexpr int kBacklog = 16;
constexpr std::chrono::milliseconds kPatience{5000};
constexpr std::chrono::milliseconds kAcceptPause{200};  // when no descriptor is left to accept with

std::string path_of(const std::string& run_dir, int pid) {
  return run_dir + "/" + std::string(kPrefix) + std::to_string(pid) + std::string(kSuffix);
}

// 0 when it is no name of such a socket.
int pid_in(std::string_view name) {
  int pid = 0;
  if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) return 0;
  name.remove_prefix(kPrefix.size());
  name.remove_suffix(kSuffix.size());
  const auto [rest, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  return error == std::errc() && rest == name.data() + name.size() ? pid : 0;
}

[[noreturn]] void fail(const std::string& path) {
  throw std::runtime_error(path + ": " + std::generic_category().message(errno));
}

unique_fd new_socket() {
  unique_fd made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made) fail("socket");
  return made;
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    fail(path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

bool connects(int fd, const std::string& path) {
  const auto address = address_of(path);
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Whether nobody listens at it any more.
bool is_stale(const std::string& path) {
  const unique_fd probe = new_socket();
  return !connects(probe.get(), path) && errno == ECONNREFUSED;
}

// The sockets in the directory with their agents' ids; none when it is not there.
std::vector<std::pair<int, std::string>> sockets_in(const std::string& run_dir) {
  std::vector<std::pair<int, std::string>> found;
  std::error_code error;
  std::filesystem::directory_iterator entry(run_dir, error);
  if (error && error != std::errc::no_such_file_or_directory) {
    throw std::runtime_error(run_dir + " cannot be read: " + error.message() + "; run as root");
  }
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (const int pid = pid_in(entry->path().filename().string()); pid > 0) {
      found.emplace_back(pid, entry->path());
    }
  }
  return found;
}

unique_fd listen_at(const std::string& run_dir, const std::string& path) {
  for (const auto& [pid, other] : sockets_in(run_dir)) {
    if (is_stale(other)) unlink(other.c_str());
  }
  const auto address = address_of(path);
  unique_fd made = new_socket();
  // Before bind() it is the mode that the file is created with, less what umask takes away.
  fchmod(made.get(), kOwnMode);
  if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), kMode) != 0 || listen(made.get(), kBacklog) != 0) {
    fail(path);
  }
  return made;
}

agent_answer ask(int pid, const unique_fd& connection) {
  agent_answer answer;
  answer.pid = pid;
  const auto until = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    switch (receive_packet(connection.get(), answer.status)) {
      case packet::received:
        return answer;
      case packet::closed:
        answer.error = "has ended, or could not say all it had to say";
        return answer;
      case packet::none:
        break;
    }
    pollfd watched[] = {{connection.get(), POLLIN, 0}};
    if (poll_until(watched, until) == 0) {
      answer.error = "does not answer: it is stopped, or hangs";
      return answer;
    }
  }
}

}  // namespace

status_socket::status_socket(const std::string& run_dir, std::function<AgentStatus()> describe)
    : path_(path_of(run_dir, getpid())),
      describe_(std::move(describe)),
      socket_(listen_at(run_dir, path_)),
      thread_(&status_socket::serve, this) {}

status_socket::~status_socket() {
  unlink(path_.c_str());
  stop_.raise();
  thread_.join();
}

void status_socket::serve() {
  constexpr auto kForever = std::chrono::steady_clock::time_point::max();
  for (;;) {
    pollfd watched[] = {{socket_.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    poll_until(watched, kForever);
    if (stop_.raised()) return;
    const unique_fd client(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
      if (errno != EAGAIN && errno != ECONNABORTED && wait_for(stop_, stop_, kAcceptPause)) return;
      continue;
    }
    try {
      send_packet(client.get(), describe_());
    } catch (const std::exception& error) {
      agent_log().warn("a question for the status is not answered: {}", printable(error.what()));
    }
  }
}

std::vector<agent_answer> ask_agents(const std::string& run_dir) {
  std::vector<agent_answer> answers;
  for (const auto& [pid, path] : sockets_in(run_dir)) {
    const unique_fd connection = new_socket();
    if (connects(connection.get(), path)) {
      answers.push_back(ask(pid, connection));
    } else if (errno == EAGAIN) {  // its queue is full
      answers.push_back({pid, {}, "does not answer: it is stopped, or hangs"});
    } else if (errno != ECONNREFUSED && errno != ENOENT) {
      throw std::runtime_error(path + ": " + std::generic_category().message(errno) +
                               "; run as root");
    }
  }
  return answers;
}

}  // namespace vexo::tools
