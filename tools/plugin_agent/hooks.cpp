#include "plugin_agent/hooks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/child_process.h"
#include "plugin_agent/guarded_child.h"
#include "plugin_agent/guardian.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kOutputKept = 16384;

// Who else could have written it; empty when nobody.
std::string foreign_writer(const struct stat& facts) {
  if (facts.st_uid != 0 && facts.st_uid != geteuid()) return "it belongs to another user";
  if ((facts.st_mode & S_IWOTH) != 0) return "everybody may write to it";
  if ((facts.st_mode & S_IWGRP) != 0 && facts.st_gid != 0 && facts.st_gid != getegid()) {
    return "another group may write to it";
  }
  return {};
}

std::string why_refused(const std::string& path) {
  struct stat facts = {};
  if (stat(path.c_str(), &facts) != 0) return std::generic_category().message(errno);
  if (!S_ISREG(facts.st_mode)) return "it is no regular file";
  if (access(path.c_str(), X_OK) != 0) return "it is not executable";
  return foreign_writer(facts);
}

bool has_control_character(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; });
}

}  // namespace

hook_listing list_hooks(const std::string& directory) {
  struct stat facts = {};
  if (stat(directory.c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode)) {
    throw std::runtime_error("the hooks directory " + directory + " cannot be read");
  }
  if (const auto reason = foreign_writer(facts); !reason.empty()) {
    throw std::runtime_error("the hooks directory " + directory + " is not used: " + reason);
  }
  hook_listing listing;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename();
    if (name.starts_with('.') || name.ends_with('~')) continue;
    if (entry.is_directory()) continue;
    std::string reason =
        has_control_character(name) ? "its name has control characters" : why_refused(entry.path());
    if (reason.empty()) {
      listing.usable.push_back({name, std::filesystem::absolute(entry.path())});
    } else {
      listing.refused.push_back({name, std::move(reason)});
    }
  }
  if (error) throw std::runtime_error("the hooks directory " + directory + ": " + error.message());
  const auto by_name = [](const auto& a, const auto& b) { return a.name < b.name; };
  std::sort(listing.usable.begin(), listing.usable.end(), by_name);
  std::sort(listing.refused.begin(), listing.refused.end(), by_name);
  return listing;
}

hook_runner::hook_runner(std::vector<std::string> environment)
    : environment_(merged_environment(std::move(environment))),
      null_(open("/dev/null", O_RDWR | O_CLOEXEC)) {
  if (!null_) throw std::system_error(errno, std::generic_category(), "/dev/null");
}

hook_runner::~hook_runner() { reap_abandoned(); }

hook_run hook_runner::run(const hook& which, const std::string& phase, milliseconds timeout,
                          guardian* watcher) {
  reap_abandoned();
  hook_run result;
  result.name = which.name;
  result.phase = phase;
  const exec_image image({which.path, phase}, environment_);
  const child_output output(kOutputKept);
  const auto start = steady_clock::now();
  // A guardian takes care of freeze hooks, and a thaw hook is to go on. Nobody else would end a
  // prepare hook that hangs when the agent has been killed.
  const pid_t pid =
      start_guarded_child(image, null_.get(), output.fd(),
                          watcher == nullptr ? -1 : watcher->announce_fd(), phase == "prepare");
  if (pid < 0)
    throw std::system_error(errno, std::generic_category(), "start of hook " + which.name);

  result.timed_out = !await_child(pid, start + timeout);
  if (!result.timed_out) {
    if (watcher != nullptr) watcher->freeze_hook_ended();
    result.exit_code = reap_child(pid);
  } else {
    result.exit_code = 128 + SIGKILL;
    if (kill_child_group(pid)) {
      reap_child(pid);
    } else {
      abandoned_.push_back(pid);
    }
  }
  result.took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  result.output = output.text();
  return result;
}

void hook_runner::reap_abandoned() {
  std::erase_if(abandoned_, [](int pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
}

}  // namespace vexo::tools
