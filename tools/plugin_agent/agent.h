#ifndef TOOLS_PLUGIN_AGENT_AGENT_H_
#define TOOLS_PLUGIN_AGENT_AGENT_H_

#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/event.h"
#include "common/interrupt.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/handshake.h"
#include "plugin_agent/options.h"
#include "plugin_agent/subscription.h"

namespace vexo::tools {

// The agent: a subscription at each appliance, and a thread for every hand-shake that they bring.
class agent {
 public:
  explicit agent(const agent_options& options);
  ~agent();
  agent(const agent&) = delete;
  agent& operator=(const agent&) = delete;

  // Serves until a signal comes: then finishes or undoes the hand-shakes under way, and returns
  // when all are over. A second signal undoes them at once.
  void run(interrupt& stop);

 private:
  struct running {
    std::shared_ptr<appliance> where;
    std::shared_ptr<handshake> shake;
    std::thread thread;
  };

  void on_command(const std::shared_ptr<appliance>& where, const scsiplugin::PluginCmd& command);
  void begin(const std::shared_ptr<appliance>& where, const scsiplugin::PluginCmd& command);
  void join_ended();
  bool all_ended();
  void unsubscribe();

  const agent_options& options_;
  event changed_;  // raised when a hand-shake has ended
  std::mutex mutex_;
  std::list<running> running_;  // under mutex_
  bool leaving_ = false;        // under mutex_
  std::vector<std::unique_ptr<subscription>> subscriptions_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_AGENT_H_
