#ifndef TOOLS_PLUGIN_FREEZER_OTHER_FREEZER_H_
#define TOOLS_PLUGIN_FREEZER_OTHER_FREEZER_H_

#include <sys/types.h>

#include <chrono>
#include <string>

#include "plugin_freezer/event_loop.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {

// How long after its deadline a freezer counts as hanging, and how long it may take to begin a thaw
// after SIGTERM.
inline constexpr std::chrono::milliseconds kReactionTime{1000};

// As in "1.5 s".
std::string seconds_text(std::chrono::milliseconds time);

// The freezers that have the lock of the run directory while this one waits for it.
class other_freezer {
 public:
  // `is_emergency`: the other one was told to thaw now, when this was made.
  other_freezer(event_loop& loop, const run_directory& directory, bool is_emergency)
      : loop_(loop), directory_(directory), is_emergency_(is_emergency) {}

  // To be called again and again while the lock is not to be had. Wakes the other freezer if it is
  // stopped, kills it if it hangs, and says once what this one waits for. False when the other one
  // has thawed and waits without a limit for processes that it has killed.
  bool wake_or_kill();

 private:
  void warn_once(pid_t pid, const std::string& what);

  event_loop& loop_;
  const run_directory& directory_;
  const bool is_emergency_;
  // Of the process that has the lock, which may change. The ids are 0 before the first.
  pid_t pid_ = 0;
  std::chrono::steady_clock::time_point since_;  // when it was first seen
  pid_t warned_of_ = 0;
  pid_t killed_ = 0;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_OTHER_FREEZER_H_
