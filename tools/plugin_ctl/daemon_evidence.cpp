#include "daemon_evidence.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <thread>

#include "common/child_process.h"
#include "common/text.h"
#include "common/unique_fd.h"

namespace vexo::tools {

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kStackTime{5};
// Of a debugger's output, which comes to 2 KB a thread; a daemon at its limit has a thousand.
constexpr std::size_t kMostOutput = 4U << 20U;
constexpr std::size_t kMostLines = 100;
constexpr std::size_t kMostOfFrame = 200;

std::string proc(pid_t pid, const char* what) {
  return "/proc/" + std::to_string(pid) + "/" + what;
}

std::string count_entries(const std::string& directory) {
  std::error_code error;
  const fs::directory_iterator entries(directory, error);
  if (error) return "?";
  return std::to_string(std::distance(fs::begin(entries), fs::end(entries)));
}

// A number of /proc/PID/stat, counted as in proc(5) and after the name, which is the second; empty
// when there is no such process.
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

// The processor time used so far.
std::optional<double> cpu_seconds(pid_t pid) {
  constexpr int kUserTimeField = 14;
  const auto user = stat_field(pid, kUserTimeField);
  const auto system = stat_field(pid, kUserTimeField + 1);
  if (!user || !system) return std::nullopt;
  return (*user + *system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// A broadcast that meets a vanished subscriber computes without end, one that waits for a stalled
// host rests.
std::string load_of(pid_t pid) {
  constexpr std::chrono::milliseconds kSample{500};
  const auto before = cpu_seconds(pid);
  const auto start = steady_clock::now();
  std::this_thread::sleep_for(kSample);
  const auto after = cpu_seconds(pid);
  if (!before || !after) return "processor time unknown";
  const std::chrono::duration<double> time = steady_clock::now() - start;
  std::array<char, 64> text = {};
  std::snprintf(text.data(), text.size(), "%.0f %% of one processor in use",
                (*after - *before) / time.count() * 100);
  return text.data();
}

struct debugger {
  std::vector<std::string> arguments;
  std::string_view thread_begins;  // how the line before each thread's frames begins
};

std::vector<debugger> debuggers(pid_t pid) {
  const std::string number = std::to_string(pid);
  return {{{"/usr/bin/eu-stack", "-p", number}, "TID "},
          {{"/usr/bin/gdb", "-nx", "-batch", "-p", number, "-ex", "set print frame-arguments none",
            "-ex", "thread apply all backtrace 24"},
           "Thread "}};
}

// Without the addresses, in which equal stacks differ.
std::string without_addresses(const std::string& line) {
  std::string text;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line.compare(i, 2, "0x") != 0) {
      text += line[i];
      continue;
    }
    for (i += 2; i < line.size() && std::isxdigit(static_cast<unsigned char>(line[i])) != 0;) ++i;
    --i;
  }
  return text;
}

bool is_own(const std::string& frame) { return frame.find("vexo::") != std::string::npos; }

// Each different stack once, with how many threads have it: most of them wait in the same place.
// Of a daemon with symbols, only the stacks in which its own code is at work, down to that code.
std::vector<std::string> merged_stacks(const std::string& output, std::string_view thread_begins) {
  std::map<std::vector<std::string>, int> stacks;
  std::vector<std::string> stack;
  bool in_thread = false;
  bool any_own = false;
  const auto finish = [&] {
    const auto last_own = std::find_if(stack.rbegin(), stack.rend(), is_own).base();
    if (last_own != stack.begin()) {
      any_own = true;
      stack.erase(last_own, stack.end());
    }
    if (!stack.empty()) ++stacks[stack];
    stack.clear();
  };
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(thread_begins)) {
      finish();
      in_thread = true;
    } else if (in_thread && line.starts_with('#')) {
      stack.push_back(printable(without_addresses(line).substr(0, kMostOfFrame)));
    }
  }
  finish();
  std::vector<std::string> text;
  int others = 0;
  for (const auto& [frames, threads] : stacks) {
    if (any_own && !is_own(frames.back())) {
      others += threads;
      continue;
    }
    text.push_back(std::to_string(threads) + (threads == 1 ? " thread:" : " threads, each:"));
    text.insert(text.end(), frames.begin(), frames.end());
  }
  if (others > 0) text.push_back(std::to_string(others) + " threads of the library");
  return text;
}

std::vector<std::string> stacks_from(const debugger& with) {
  const unique_fd output(memfd_create("stacks", MFD_CLOEXEC));
  const std::string name = fs::path(with.arguments.front()).filename();
  const pid_t child = start_child({.arguments = with.arguments,
                                   .environment = {"PATH=/usr/bin:/bin", "LC_ALL=C", "HOME=/"},
                                   .stdout_fd = output.get(),
                                   .stderr_fd = output.get()});
  const bool in_time = await_child(child, steady_clock::now() + kStackTime);
  if (in_time || kill_child_group(child)) reap_child(child);
  std::string said(kMostOutput, '\0');
  said.resize(static_cast<std::size_t>(
      std::max<ssize_t>(pread(output.get(), said.data(), said.size(), 0), 0)));
  auto lines = merged_stacks(said, with.thread_begins);
  if (lines.empty()) {
    std::replace(said.begin(), said.end(), '\n', ' ');
    constexpr std::size_t kMostSaid = 300;
    return {name + (in_time ? " shows no stack: " : " took too long: ") +
            printable(said.substr(0, kMostSaid))};
  }
  if (lines.size() > kMostLines) {
    lines.resize(kMostLines);
    lines.emplace_back("... and more");
  }
  return lines;
}

std::vector<std::string> stacks_of(pid_t pid) {
  for (const auto& candidate : debuggers(pid)) {
    if (access(candidate.arguments.front().c_str(), X_OK) == 0) return stacks_from(candidate);
  }
  return {"no stacks: neither eu-stack (package elfutils) nor gdb is installed"};
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

std::vector<std::string> evidence_of(pid_t pid) {
  std::vector<std::string> lines = {count_entries(proc(pid, "task")) + " threads, " +
                                    open_files(pid) + ", " + load_of(pid)};
  try {
    const auto stacks = stacks_of(pid);
    lines.insert(lines.end(), stacks.begin(), stacks.end());
  } catch (const std::system_error& error) {
    lines.emplace_back(std::string("no stacks: ") + error.what());
  }
  return lines;
}

}  // namespace vexo::tools
