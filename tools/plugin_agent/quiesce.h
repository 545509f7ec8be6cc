#ifndef TOOLS_PLUGIN_AGENT_QUIESCE_H_
#define TOOLS_PLUGIN_AGENT_QUIESCE_H_

#include <chrono>
#include <condition_variable>
#include <map>
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
#include "plugin_freezer/process_settings.h"

namespace vexo::tools {

using hook_run = FreezerReport::HookRun;
using file_system_freeze = FreezerReport::FileSystemFreeze;

// Why the host was not at rest, or did not stay so, as a phrase for a person.
class quiesce_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// This rest was over, or never began, before the member had joined. Another rest may succeed.
class rest_missed : public std::runtime_error {
 public:
  rest_missed() : std::runtime_error("the freezer has died") {}
};

// One rest of the host, shared by its members, the handshakes that need it. It ends when the last
// member leaves, or at its limit, which is counted from the first freeze. A thread of its own
// listens to the freezer. When the freezer dies or hangs, it starts another one, which thaws. While
// the host is at rest, the log is kept in memory. Any thread may call.
class quiesce {
 public:
  using clock = std::chrono::steady_clock;

  // Starts the freezer, which waits for its turn, with plan.member() as the first member. Each
  // member's `news` is raised when one of its questions may have another answer; it must live until
  // end(). With an empty plan the host is at rest at once and without limit. Throws
  // std::runtime_error.
  quiesce(const FreezerPlan& plan, event& news);
  ~quiesce();
  quiesce(const quiesce&) = delete;
  quiesce& operator=(const quiesce&) = delete;

  // False when the rest is over, or when less than `hold` is left of it.
  bool join(const RestMember& who, event& news, std::chrono::milliseconds hold);

  // Whether everything is frozen for this member. Throws quiesce_error when it cannot be, or is no
  // longer, and rest_missed.
  bool at_rest(const std::string& who);

  // Leaves, and blocks until the host is thawed. Then throws quiesce_error if the host was not at
  // rest until this member left. Further calls have no effect.
  void end(const std::string& who);
  // Ends the rest of all members without waiting.
  void thaw_now();
  // Whether it has thawed everything, or never froze anything.
  bool thawed();
  // Whether the freezer has ended, which may still wait for a process after the thaw.
  bool over();

  // The latest end of the rest; time_point::max() until the freezer has its turn.
  clock::time_point deadline();
  // When everything was frozen; at_rest() has been true.
  clock::time_point since();
  // These after end(). From the first step of the freeze to the last of the thaw.
  std::chrono::milliseconds frozen_for();
  // Of that, until everything was frozen; 0 when it never was.
  std::chrono::milliseconds freeze_took();
  std::vector<hook_run> runs();
  // Of each file system that was frozen.
  std::vector<file_system_freeze> file_systems();
  // The names of the others that have been members.
  std::vector<std::string> others(const std::string& who);

 private:
  struct member {
    event* news = nullptr;  // null when it has left
    bool joined = false;
  };

  void listen();
  void take(const FreezerReport& report);
  // Throws when the member is not at rest, or will not be.
  void check(const member& one) const;
  void raise_all();
  // The time by which the freezer has to say something.
  clock::time_point next_report();

  const FreezerPlan plan_;
  std::optional<freezer_process> freezer_;
  event destroyed_;  // ends the thread
  std::mutex mutex_;
  std::condition_variable on_thawed_;
  // All under mutex_.
  std::map<std::string, member> members_;
  bool begun_ = false;
  bool frozen_ = false;
  bool thawing_ = false;
  bool thawed_ = false;
  bool gone_ = false;
  clock::time_point begun_at_;
  clock::time_point frozen_at_;
  clock::time_point deadline_ = clock::time_point::max();
  clock::time_point thawing_until_;
  std::string reason_;           // why the host was not at rest until the last member left
  bool was_asked_ = false;       // for the thaw, by the last member that left
  std::string thawed_by_other_;  // what somebody else has thawed
  std::chrono::milliseconds frozen_for_{};
  std::vector<hook_run> runs_;
  std::vector<file_system_freeze> file_systems_;
  std::optional<log_hold> hold_;
  std::optional<without_core_dump> no_core_dump_;

  std::thread thread_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_QUIESCE_H_
