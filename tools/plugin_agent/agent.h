#ifndef TOOLS_PLUGIN_AGENT_AGENT_H_
#define TOOLS_PLUGIN_AGENT_AGENT_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "agent_report.pb.h"
#include "common/event.h"
#include "common/interrupt.h"
#include "plugin_agent/agent_metrics.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/handshake.h"
#include "plugin_agent/host_facts.h"
#include "plugin_agent/host_rests.h"
#include "plugin_agent/options.h"
#include "plugin_agent/subscription.h"

namespace vexo::tools {

// The agent: a subscription at each appliance, and a thread for every handshake that they bring.
class agent {
 public:
  // Handshakes at once: more than a host has LUNs whose snapshots are taken at the same time, and
  // few enough for the unit's TasksMax=. The next one is refused.
  static constexpr std::size_t kMostHandshakes = 64;
  // Verdicts that are kept for status().
  static constexpr std::size_t kMostVerdicts = 10;

  explicit agent(const agent_options& options);
  ~agent();
  agent(const agent&) = delete;
  agent& operator=(const agent&) = delete;

  // Serves until a signal comes. Then finishes or undoes the handshakes under way, and returns when
  // all are over; a second signal undoes them at once.
  void run(interrupt& stop);

  // The state of the agent. Asks no appliance and touches no file system that may be frozen. To be
  // called by one thread at a time; no handshake waits for it.
  AgentStatus status();

 private:
  struct running {
    running(std::shared_ptr<appliance> appliance, std::shared_ptr<handshake> handshake)
        : where(std::move(appliance)), shake(std::move(handshake)) {}
    // Tells the handshake to give up, and blocks until it is over.
    ~running();
    running(const running&) = delete;
    running& operator=(const running&) = delete;

    const std::shared_ptr<appliance> where;
    const std::shared_ptr<handshake> shake;
    bool is_counted = false;  // in metrics_; under agent::mutex_
    std::thread thread;
  };

  void on_command(const std::shared_ptr<appliance>& where, const scsiplugin::PluginCmd& command);
  void begin(const std::shared_ptr<appliance>& where, const scsiplugin::PluginCmd& command);
  void join_ended();
  // Writes the file of --metrics, but not while the host is at rest. `leaves`: the agent ends.
  void write_metrics(bool leaves = false);
  // False when one of them has begun to bring the host to rest.
  bool add_handshakes(AgentStatus& status);
  bool all_ended();

  const agent_options& options_;
  host_rests rests_;
  // Both used by the thread of run() only.
  agent_metrics metrics_;
  std::string metrics_trouble_;  // of the last attempt to write them
  event changed_;                // raised when a handshake has ended
  std::mutex mutex_;
  std::list<running> running_;  // under mutex_; those of one LUN in the order in which they came
  std::deque<HandshakeRecord> verdicts_;  // under mutex_; of those that are over, the last first
  bool leaving_ = false;                  // under mutex_
  host_facts facts_;                      // used by status() only
  const std::chrono::system_clock::time_point since_ = std::chrono::system_clock::now();
  std::vector<std::unique_ptr<subscription>> subscriptions_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_AGENT_H_
