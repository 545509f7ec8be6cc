#include "plugin_guard/daemon_evidence.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

namespace vexo::tools {

namespace {

namespace fs = std::filesystem;

std::string proc(pid_t pid, const char* what) {
  return "/proc/" + std::to_string(pid) + "/" + what;
}

std::string count_entries(const std::string& directory) {
  std::error_code error;
  const fs::directory_iterator entries(directory, error);
  if (error) return "?";
  return std::to_string(std::distance(fs::begin(entries), fs::end(entries)));
}

// The processor time that a process has used so far; empty when there is no such process.
std::optional<double> cpu_seconds(pid_t pid) {
  std::ifstream file(proc(pid, "stat"));
  std::string text;
  std::getline(file, text, '\0');
  // Field 2 of proc(5) is the name in parentheses, and may itself hold spaces and parentheses.
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  constexpr int kUserTimeField = 14;  // the system time is the next
  std::string skipped;
  for (int i = 3; i < kUserTimeField; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  if (!(fields >> user >> system)) return std::nullopt;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

std::string open_files(pid_t pid) {
  std::string text = count_entries(proc(pid, "fd"));
  std::ifstream limits(proc(pid, "limits"));
  constexpr std::string_view kName = "Max open files";
  for (std::string line; std::getline(limits, line);) {
    if (!line.starts_with(kName)) continue;
    std::istringstream columns(line.substr(kName.size()));
    std::string soft;
    if (columns >> soft) text += " of " + soft;
  }
  return text + " files open";
}

daemon_evidence::daemon_evidence(pid_t pid) : pid_(pid), cpu_seconds_(cpu_seconds(pid)) {}

std::string daemon_evidence::text() const {
  const auto now = cpu_seconds(pid_);
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
  std::array<char, 64> load = {"processor time unknown"};
  if (now && cpu_seconds_) {
    std::snprintf(load.data(), load.size(), "%.0f %% of one processor in use",
                  (*now - *cpu_seconds_) / time.count() * 100);
  }
  return count_entries(proc(pid_, "task")) + " threads, " + open_files(pid_) + ", " + load.data();
}

}  // namespace vexo::tools
