#include "plugin_guard/daemon_sockets.h"

#include <netinet/in.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

namespace vexo::tools {

namespace {

namespace fs = std::filesystem;

// A line of /proc/PID/net/tcp, see proc(5).
struct table_entry {
  std::string number, local, remote, state, queues, timer, retransmits, user, timeout, inode;

  bool is_listening() const { return state == "0A"; }
  // For a listening socket: whether connections wait to be accepted.
  bool has_waiting() const { return !queues.ends_with(":00000000"); }
};

std::vector<table_entry> entries_with(const fs::path& table, const std::string& local_port) {
  std::vector<table_entry> found;
  std::ifstream file(table);
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    table_entry one;
    fields >> one.number >> one.local >> one.remote >> one.state >> one.queues >> one.timer >>
        one.retransmits >> one.user >> one.timeout >> one.inode;
    if (fields && one.local.ends_with(local_port)) found.push_back(one);
  }
  return found;
}

// The inodes of a process's sockets; empty when the process cannot be examined.
std::set<std::string> sockets_of(const fs::path& process) {
  std::set<std::string> inodes;
  const std::string before = "socket:[";
  std::error_code error;
  for (fs::directory_iterator file(process / "fd", error), end; !error && file != end;
       file.increment(error)) {
    std::error_code closed;
    const std::string link = fs::read_symlink(file->path(), closed);
    if (link.starts_with(before)) {
      inodes.insert(link.substr(before.size(), link.size() - before.size() - 1));
    }
  }
  return inodes;
}

// An IPv4 address and a port in the form of the kernel's tables. A mapped address in the table of
// IPv6 ends with the same text.
std::string table_text(std::uint32_t address, std::uint16_t port) {
  std::array<char, 16> text = {};
  std::snprintf(text.data(), text.size(), "%08X:%04X", address, port);
  return text.data();
}

}  // namespace

std::optional<port_use> port_use_of(pid_t pid, std::uint16_t port, std::uint16_t from) {
  const fs::path process = "/proc/" + std::to_string(pid);
  const std::string caller = table_text(htonl(INADDR_LOOPBACK), from);
  const std::string local_port = table_text(0, port).substr(8);
  // The tables are read before the files: what they hold with an inode is then among the files.
  auto entries = entries_with(process / "net/tcp", local_port);
  const auto more = entries_with(process / "net/tcp6", local_port);
  entries.insert(entries.end(), more.begin(), more.end());
  const auto own = sockets_of(process);
  if (own.empty()) return std::nullopt;
  port_use use;
  for (const table_entry& one : entries) {
    if (!own.contains(one.inode)) continue;
    if (one.is_listening()) {
      use.listens = true;
      use.has_waiting = use.has_waiting || one.has_waiting();
    } else if (one.remote.ends_with(caller)) {
      use.has_accepted = true;
    }
  }
  return use;
}

bool shares_network(pid_t pid) {
  std::error_code error;
  const fs::path mine = fs::read_symlink("/proc/self/ns/net", error);
  const fs::path its = fs::read_symlink("/proc/" + std::to_string(pid) + "/ns/net", error);
  return error || mine == its;
}

}  // namespace vexo::tools
