#ifndef TOOLS_PLUGIN_AGENT_QUIESCE_H_
#define TOOLS_PLUGIN_AGENT_QUIESCE_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/event.h"
#include "freezer.pb.h"
#include "plugin_agent/agent_log.h"
#include "plugin_agent/freezer_process.h"
#include "plugin_freezer/survival.h"

namespace vexo::tools {

using hook_run = FreezerReport::HookRun;

// Why the host was not at rest, or did not stay so, as a phrase for a person.
class quiesce_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One rest of the host, as the freezer that brings it about tells of it. A thread of its own
// listens: it notices at once that the freezer has died, or hangs, and has another one undo what
// that has frozen. The log is held while the host is at rest. Used by one thread but for
// thaw_now().
class quiesce {
 public:
  using clock = std::chrono::steady_clock;

  // Starts the freezer, which waits for its turn. A plan of nothing is at rest at once, and for as
  // long as any. Throws std::runtime_error.
  explicit quiesce(const FreezerPlan& plan);
  ~quiesce();  // end()
  quiesce(const quiesce&) = delete;
  quiesce& operator=(const quiesce&) = delete;

  // Whether everything is frozen. Throws quiesce_error when it cannot be, or is no longer.
  bool at_rest();
  // Throws quiesce_error when the host is, or may be, no longer at rest.
  void check() { at_rest(); }
  // Readable when at_rest() may have news.
  int fd() const { return changed_.fd(); }

  // Ends the rest, and blocks until the host is thawed. Throws quiesce_error, when that is done, if
  // it was not at rest all the time. Only the first call counts.
  void end();
  // Ends the rest without waiting. Any thread may call.
  void thaw_now();
  // Whether nothing is left to do, not even for processes that may freeze something yet.
  bool over();

  // When the rest ends at the latest; unknown, and far away, until the freezer has its turn.
  clock::time_point deadline();
  // These two after end(). From the first step of the freeze to the last of the thaw.
  std::chrono::milliseconds frozen_for();
  std::vector<hook_run> runs();

 private:
  void listen();
  void take(const FreezerReport& report);
  // The time by which the freezer has to say something.
  clock::time_point next_report();

  const FreezerPlan plan_;
  std::optional<freezer_process> freezer_;
  bool ended_ = false;
  event changed_;
  event left_;  // raised when nobody wants to hear any more
  std::mutex mutex_;
  std::condition_variable on_thawed_;
  // All under mutex_.
  bool begun_ = false;
  bool frozen_ = false;
  bool thawing_ = false;
  bool thawed_ = false;
  bool gone_ = false;
  clock::time_point begun_at_;
  clock::time_point deadline_ = clock::time_point::max();
  clock::time_point thawing_until_;
  std::string reason_;
  std::chrono::milliseconds frozen_for_{};
  std::vector<hook_run> runs_;
  std::optional<log_hold> hold_;
  std::optional<without_core_dump> no_core_dump_;

  std::thread thread_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_QUIESCE_H_
