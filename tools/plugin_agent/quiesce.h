#ifndef TOOLS_PLUGIN_AGENT_QUIESCE_H_
#define TOOLS_PLUGIN_AGENT_QUIESCE_H_

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "plugin_agent/agent_log.h"
#include "plugin_agent/file_system.h"
#include "plugin_agent/freeze_turn.h"
#include "plugin_agent/guardian.h"
#include "plugin_agent/hooks.h"
#include "plugin_agent/survival.h"

namespace vexo::tools {

// Why the host was not at rest, or did not stay so, as a phrase for a person.
class quiesce_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct quiesce_plan {
  std::vector<std::string> mount_points;
  std::vector<hook> hooks;
  std::chrono::milliseconds max_freeze{};
  std::chrono::milliseconds hook_timeout{};

  bool empty() const { return mount_points.empty() && hooks.empty(); }
};

// The host's applications and file systems, once brought to rest and woken again. The log is held
// meanwhile. Used by one thread; ended at the latest by its destructor.
class quiesce {
 public:
  using clock = std::chrono::steady_clock;

  // `turn` may be empty for an empty plan only. What hooks do is added to `runs`.
  quiesce(const quiesce_plan& plan, std::optional<freeze_turn> turn, hook_runner& runner,
          std::vector<hook_run>& runs);
  ~quiesce();
  quiesce(const quiesce&) = delete;
  quiesce& operator=(const quiesce&) = delete;

  // Runs the `freeze` hooks, then freezes the file systems. Throws quiesce_error when one of them
  // fails or the time is up; what has been done by then is undone by end().
  void begin();

  // Throws quiesce_error when the host is, or may be, no longer at rest.
  void check();

  // Thaws the file systems, then runs the `thaw` hooks of those whose `freeze` was started, in
  // reverse order. Throws quiesce_error, when all is done, if somebody else had thawed before.
  void end();

  // When end() is due at the latest.
  clock::time_point deadline() const { return deadline_; }
  // Readable when check() may have news; -1 when there is nothing to watch.
  int fd() const { return watcher_ ? watcher_->fd() : -1; }
  // From the first step of the freeze to the last of the thaw; zero when nothing was to be frozen.
  std::chrono::milliseconds frozen_for() const { return frozen_for_; }

 private:
  void freeze_hooks();
  void freeze_file_systems();
  // Whether every file system is certainly thawed, and whether each was still frozen.
  struct thaw_outcome {
    bool sure = true;
    std::string already_thawed;
  };
  thaw_outcome thaw_file_systems();
  bool thaw_hooks();

  const quiesce_plan& plan_;
  std::optional<freeze_turn> turn_;
  hook_runner& runner_;
  std::vector<hook_run>& runs_;
  std::optional<log_hold> hold_;
  std::vector<file_system> file_systems_;
  guardian_plan guardian_plan_;  // the guardian reads it in its own process
  std::optional<guardian> watcher_;
  std::optional<without_core_dump> no_core_dump_;
  std::size_t hooks_started_ = 0;
  std::vector<const file_system*> frozen_;
  clock::time_point start_;
  clock::time_point deadline_;
  bool ended_ = false;
  std::chrono::milliseconds frozen_for_{};
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_QUIESCE_H_
