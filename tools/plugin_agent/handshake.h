#ifndef TOOLS_PLUGIN_AGENT_HANDSHAKE_H_
#define TOOLS_PLUGIN_AGENT_HANDSHAKE_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/event.h"
#include "handshake_record.pb.h"
#include "lun_cmd.pb.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/freezer_process.h"
#include "plugin_agent/hooks.h"
#include "plugin_agent/host_rests.h"
#include "plugin_agent/options.h"
#include "plugin_agent/quiesce.h"
#include "plugin_cmd.pb.h"

namespace vexo::tools {

// The host's side of one snapshot of one LUN, from the announcement to the verdict in the log.
// Several run at the same time, each on its own thread. Those that are ready at the same time share
// one rest of the host; the others take turns.
class handshake {
 public:
  handshake(const agent_options& options, host_rests& rests, std::shared_ptr<const appliance> where,
            scsiplugin::PluginCmd command);

  // Takes part in the handshake until its end. Blocks for as long as the mirror takes.
  void run();

  // The following may be called by any thread, at any time.

  // Gives up. Once the appliance may be splitting the mirror, the host stays at rest until that is
  // over instead.
  void stop();
  // Give up in any case, and thaw.
  void stop_now();
  // The appliance says that the split is over.
  void departed(int result);
  // The appliance announces another snapshot of the LUN, so this one is over.
  void superseded();

  // Whether run() has returned.
  bool over() const { return over_; }
  void wait_until_over() const { over_.wait(false); }
  // As AgentStatus has it.
  const char* step() const { return step_; }
  std::chrono::duration<double> age() const { return clock::now() - start_; }
  // Whether it has begun to bring the host to rest, and is not over.
  bool has_rest();
  // Its verdict, once there is one.
  std::optional<HandshakeRecord> record();
  // How long each file system took to freeze, once there is a verdict.
  const std::vector<file_system_freeze>& file_systems() const { return file_systems_; }
  const std::string& lun() const { return command_.init_snapshot_req().src_lun_p80(); }

 private:
  using clock = std::chrono::steady_clock;

  struct news_flags {
    bool stop = false;
    bool stop_now = false;
    bool superseded = false;
    std::optional<int> departed;
  };

  void take_part();
  void prepare();
  // From now on a rest has the hooks thawed.
  void release_preparer();
  // Has `thaw` run for the hooks that were prepared, if no rest has; their runs go to runs_.
  void undo_prepare();
  // False when this freezer has died before it has thawed.
  bool hear_thaw(const freezer_process& freezer);
  void start_mirror();
  void wait_for_mirror();
  void gather();
  void enter_rest();
  bool is_at_rest();
  void come_to_rest();
  void depart();
  void hold();
  // Throws given_up when the appliance says within kResultTime that the split has failed.
  void hear_result();
  std::string verdict() const;
  void write_record();

  scsiplugin::LunCmd lun_command() const;
  appliance::answer ask_start_mirror();
  appliance::answer ask_depart();

  // Whether the connection was lost since the last time that this was asked.
  bool connection_was_lost();

  // The freezer may run on after the rest, while a process may still freeze something. What it says
  // is logged.
  void hear_the_freezer_out();

  void tell(void (*change)(news_flags&));
  // Blocks until there is news, `fd` is readable, or `until`; then the news.
  news_flags wait(clock::time_point until, int fd = -1);
  // As wait(), while nothing is frozen yet: throws given_up when the handshake is to end.
  void wait_or_give_up(clock::time_point until, int fd = -1);

  const agent_options& options_;
  host_rests& rests_;
  const std::shared_ptr<const appliance> appliance_;
  const scsiplugin::PluginCmd command_;
  const clock::time_point start_ = clock::now();
  hook_listing hooks_;
  FreezerPlan plan_;
  std::vector<hook_run> runs_;
  std::vector<file_system_freeze> file_systems_;
  // Has `thaw` run for the hooks that were prepared, also when the agent is killed.
  std::optional<freezer_process> preparer_;
  std::chrono::milliseconds frozen_for_{};
  std::chrono::milliseconds freeze_took_{};
  // The appliance may count on the host being at rest, until it says that the split is over.
  bool may_count_on_rest_ = false;
  unsigned losses_seen_ = appliance_->losses();
  std::string verdict_;
  std::string reason_;
  std::atomic<bool> over_ = false;
  std::atomic<const char*> step_ = "prepare";

  event news_event_;
  std::mutex mutex_;
  // All under mutex_.
  news_flags news_;
  std::optional<HandshakeRecord> record_;
  std::shared_ptr<quiesce> rest_;  // written by this handshake's thread, for stop_now()
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HANDSHAKE_H_
