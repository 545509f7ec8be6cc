#ifndef TOOLS_PLUGIN_AGENT_HANDSHAKE_H_
#define TOOLS_PLUGIN_AGENT_HANDSHAKE_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "handshake_record.pb.h"
#include "lun_cmd.pb.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/handshake_news.h"
#include "plugin_agent/hooks.h"
#include "plugin_agent/host_rests.h"
#include "plugin_agent/options.h"
#include "plugin_agent/prepared_hooks.h"
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

  // Gives up, unless the appliance may already be splitting the mirror: then the host stays at rest
  // until the split is over.
  void stop() { news_.stop(); }
  // Gives up in any case, and thaws.
  void stop_now();
  // The appliance says that the split is over.
  void departed(int result) { news_.departed(result); }
  // The appliance announces another snapshot of the LUN, so this one is over.
  void superseded() { news_.superseded(); }

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

  void take_part();
  void make_plan();
  void prepare();
  // From now on a rest runs the `thaw` of the hooks that were prepared.
  void release_prepared();
  // Runs it if no rest has done so.
  void undo_prepare();
  void start_mirror();
  void wait_for_mirror();
  void gather();
  void enter_rest();
  bool is_at_rest();
  void come_to_rest();
  void depart();
  void hold();
  // For the subscriber without a name, the only one that the daemon tells the split's result.
  // Throws given_up when the split has failed.
  void hear_result();
  std::string verdict() const;
  void write_record();

  scsiplugin::LunCmd question() const;  // without a body
  appliance::answer ask_start_mirror();
  appliance::answer ask_depart();

  // Whether the connection was lost since the last call.
  bool connection_was_lost();

  // Blocks while the freezer waits, after the rest, for a process that may still freeze something:
  // what the freezer says goes to the log.
  void await_freezer_end();

  const agent_options& options_;
  host_rests& rests_;
  const std::shared_ptr<const appliance> appliance_;
  const scsiplugin::PluginCmd command_;
  const clock::time_point start_ = clock::now();
  hook_listing hooks_;
  FreezerPlan plan_;
  std::vector<hook_run> runs_;
  std::vector<file_system_freeze> file_systems_;
  std::optional<prepared_hooks> prepared_;
  std::chrono::milliseconds frozen_for_{};
  std::chrono::milliseconds freeze_took_{};
  // The appliance may count on the host being at rest, until it says that the split is over.
  bool may_count_on_rest_ = false;
  unsigned losses_seen_ = appliance_->losses();
  std::string verdict_;
  std::string reason_;
  std::atomic<bool> over_ = false;
  std::atomic<const char*> step_ = "prepare";

  handshake_news news_;
  std::mutex mutex_;
  // Both under mutex_.
  std::optional<HandshakeRecord> record_;
  std::shared_ptr<quiesce> rest_;  // written by this handshake's thread, for stop_now()
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HANDSHAKE_H_
